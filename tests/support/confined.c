/* SPDX-License-Identifier: ISC */
/*
 * confined [-u USER] COMMAND [ARGUMENT ...]: runs a command as an ordinary container starts one.
 *
 * No namespace can be made and nothing can be mounted, as the system call filter of a container
 * engine has it; root keeps the fourteen capabilities of a container. -u USER gives up root before
 * that: USER is a number, for user and group. Needs root. For the continuous tests, which start on
 * a machine that allows everything.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <grp.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#define NAMESPACES                                                                                 \
    (CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID |  \
     CLONE_NEWNET)

/* The lower half of an argument: both byte orders of this machine's words are little-endian. */
#define FIELD(name) (uint32_t) offsetof(struct seccomp_data, name)
#define REFUSE(error) BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (error))

/* Refuses system call `number` whatever its arguments. */
#define REFUSE_CALL(number, error)                                                                 \
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (number), 0, 1), REFUSE(error)

static struct sock_filter filter[] = {
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, FIELD(nr)),
    REFUSE_CALL(__NR_mount, EPERM),
    REFUSE_CALL(__NR_umount2, EPERM),
    REFUSE_CALL(__NR_pivot_root, EPERM),
    REFUSE_CALL(__NR_setns, EPERM),
    /* Its flags are in memory, where a filter cannot look; libc then takes clone. */
    REFUSE_CALL(__NR_clone3, ENOSYS),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_unshare, 1, 0),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, FIELD(args[0])),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, NAMESPACES, 0, 1),
    REFUSE(EPERM),
    BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
};

static void fail(const char *what)
{
    fprintf(stderr, "confined: %s: %s\n", what, strerror(errno));
    exit(126);
}

/* What the usual container engines leave to root. */
static const int container_capabilities[] = {
    CAP_CHOWN,      CAP_DAC_OVERRIDE, CAP_FOWNER,      CAP_FSETID,           CAP_KILL,
    CAP_SETGID,     CAP_SETUID,       CAP_SETPCAP,     CAP_NET_BIND_SERVICE, CAP_NET_RAW,
    CAP_SYS_CHROOT, CAP_MKNOD,        CAP_AUDIT_WRITE, CAP_SETFCAP,
};

static void keep_container_capabilities(void)
{
    uint64_t kept = 0;
    for (size_t i = 0; i < sizeof container_capabilities / sizeof *container_capabilities; i++)
        kept |= UINT64_C(1) << container_capabilities[i];
    for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; capability++)
        if (((kept >> capability) & 1) == 0 && prctl(PR_CAPBSET_DROP, capability) != 0)
            fail("a capability cannot be given up");

    struct __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3};
    struct __user_cap_data_struct data[2];
    for (int i = 0; i < 2; i++) {
        uint32_t word = (uint32_t)(kept >> (32 * i));
        data[i] = (struct __user_cap_data_struct){.effective = word, .permitted = word};
    }
    if (syscall(SYS_capset, &header, data) != 0)
        fail("the capabilities cannot be set");
}

int main(int argc, char **argv)
{
    const char *user = NULL;
    int at = 1;
    if (at + 1 < argc && strcmp(argv[at], "-u") == 0) {
        user = argv[at + 1];
        at += 2;
    }
    if (at >= argc) {
        fprintf(stderr, "usage: confined [-u USER] COMMAND [ARGUMENT ...]\n");
        return 2;
    }

    struct sock_fprog program = {.len = sizeof filter / sizeof *filter, .filter = filter};
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        fail("the filter is refused");
    if (user != NULL) {
        uid_t id = (uid_t)strtoul(user, NULL, 10);
        if (setgroups(0, NULL) != 0 || setresgid(id, id, id) != 0 || setresuid(id, id, id) != 0)
            fail("the user cannot be changed");
    } else {
        keep_container_capabilities();
    }
    execvp(argv[at], argv + at);
    fail(argv[at]);
}
