# SPDX-License-Identifier: ISC
# emulation.sh: programs of the target's architecture in the private root. Sourced by `root`.
#
# The kernel runs them through user-mode emulation when its binfmt_misc table says so. The
# machine's own table is left alone: a user namespace has one to itself (Linux 6.7 and later), and
# then everything in the root, shell and tools included, is target code. Otherwise the emulator is
# called by name, shell and tools are the host's, and programs of the build tree that tests start
# are wrapped. BV_ROOT_EMULATION=wrapped asks for that.

table=/proc/sys/fs/binfmt_misc

# The machine is known by a program of the userland: its class (32 or 64 bits) and ELF number.
elf() { od -An -tx1 -j"$2" -N"$3" "$1" | tr -d ' '; }
class=$(elf "$userland/bin/busybox" 4 1)
machine=$(elf "$userland/bin/busybox" 18 2)
case $machine in
0800) cpu=mipsel ;;
b700) cpu=aarch64 ;;
3e00) cpu=x86_64 ;;
esac
emulator=qemu-$cpu-static
export BV_ROOT_EMULATOR="$emulator"

# A table entry whose interpreter the kernel has open already (flag F) works in any root.
machine_runs_target_code() {
    [ -e "$table/qemu-$cpu" ] && grep -q '^enabled' "$table/qemu-$cpu" &&
        grep -q '^flags:.*F' "$table/qemu-$cpu"
}

# Prints native, own or wrapped: how target programs are run here.
emulation_kind() {
    if [ "${BV_ROOT_EMULATION:-}" = wrapped ]; then
        echo wrapped
    elif [ "$(uname -m)" = "$cpu" ] || machine_runs_target_code; then
        echo native
    elif unshare -U -r -m mount -t binfmt_misc none "$table" 2> /dev/null; then
        echo own
    else
        echo wrapped
    fi
}

# enter_namespace COMMAND...: becomes COMMAND in a user namespace with its own table. The users
# there are the machine's when we may say so (real root), else root alone.
enter_namespace() {
    if [ "$(id -u)" != 0 ]; then
        exec unshare -U -r -m "$@"
    fi
    # Only a process outside may enter a whole range, and only once the namespace is there.
    outside=$(readlink /proc/self/ns/user)
    (
        while [ "$(readlink /proc/$$/ns/user)" = "$outside" ]; do
            sleep 0.002
        done
        echo 0 0 65536 > /proc/$$/gid_map
        echo 0 0 65536 > /proc/$$/uid_map
    ) &
    exec unshare -U -m sh -c 'until [ "$(id -u)" = 0 ]; do sleep 0.002; done; exec "$@"' sh "$@"
}

# The registration is the packaged one: its flags keep a program's own name in argv[0], by which
# busybox knows what it is to be.
register_emulator() {
    mount -t binfmt_misc none "$table"
    for file in "/usr/lib/binfmt.d/qemu-$cpu.conf" "/usr/share/qemu/binfmt.d/qemu-$cpu.conf"; do
        if [ -e "$file" ]; then
            cat "$file" > "$table/register"
            return 0
        fi
    done
    path=$(command -v "$emulator")
    printf '%s' ":qemu-$cpu:M::\\x7f\\x45\\x4c\\x46\\x$class\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x02\\x00\\x${machine%??}\\x00:\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\x00\\xfe\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xfe\\xff\\xff\\xff:$path:OF" > "$table/register"
}

# Whether a file is a program or a library of that machine.
is_target_program() {
    [ -f "$1" ] && [ "$(elf "$1" 18 2)" = "$machine" ]
}

# Prints the target programs below a folder that tests and examples start.
target_programs() {
    for folder in "$1/compat" "$1/examples" "$1/tools"; do
        [ ! -d "$folder" ] || find "$folder" -type f -perm /111 ! -name '*.so*' ! -path '*/CMakeFiles/*'
    done
}
