// SPDX-License-Identifier: ISC
// A plugin for the user-mode emulator: how many of the emulated processor's instructions a program
// ran, printed on standard error as "instructions: N" when it exits. Every translated block adds
// its length to one sum when it is entered, so an instruction is counted as often as it runs. What
// the kernel does is not counted, nor is a process that ends by a signal.
//
// Debian ships the emulator without the header of its plugin interface; these are the few names of
// version 1 that counting needs.

#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>

struct qemu_plugin_tb; // a block of translated code
struct qemu_info_t;
enum { kAddToSum = 0 };

typedef void (*BlockCallback)(uint64_t plugin, struct qemu_plugin_tb *block);
typedef void (*ExitCallback)(uint64_t plugin, void *data);

extern void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t plugin, BlockCallback callback);
extern void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *block, int operation,
                                                     void *sum, uint64_t addend);
extern size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);
extern void qemu_plugin_register_atexit_cb(uint64_t plugin, ExitCallback callback, void *data);

#define EXPORT __attribute__((visibility("default")))
EXPORT int qemu_plugin_version = 1;
EXPORT int qemu_plugin_install(uint64_t plugin, const struct qemu_info_t *info, int argc,
                               char **argv);

static uint64_t instructions;

static void count_block(uint64_t plugin, struct qemu_plugin_tb *block)
{
    (void)plugin;
    qemu_plugin_register_vcpu_tb_exec_inline(block, kAddToSum, &instructions,
                                             qemu_plugin_tb_n_insns(block));
}

static void print_sum(uint64_t plugin, void *data)
{
    (void)plugin;
    (void)data;
    fprintf(stderr, "instructions: %" PRIu64 "\n", instructions);
}

int qemu_plugin_install(uint64_t plugin, const struct qemu_info_t *info, int argc, char **argv)
{
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(plugin, count_block);
    qemu_plugin_register_atexit_cb(plugin, print_sum, NULL);
    return 0;
}
