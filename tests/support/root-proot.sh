# SPDX-License-Identifier: ISC
# root-proot.sh: the private root made with ptrace, for places that refuse namespaces. Sourced by
# `root`, whose variables it uses.
#
# The root is a folder of its own, removed afterwards. /usr and the trees are seen with the
# permissions that they have; /config/work is as large as the disk; network, processes and IPC are
# shared, so that tests which use the same port must not run at the same time.

folder=$(mktemp -d "${TMPDIR:-/tmp}/bv.XXXXXX")
trap 'rm -rf "$folder"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# proot waits for the last process and takes its status, so what the command leaves running is ended
# after it, and its own status is kept in a file. A shell's background command would ignore SIGINT.
inside='env --default-signal=INT,QUIT setsid "$@" <&0 & wait $!
echo $? > /.status
kill -9 -$! 2> /dev/null'
set -- sh -c "$inside" sh "$@"

(cd "$folder" && mkdir -p etc/template config/factory config/work var/run var/tmp run home root opt/bin usr proc \
    dev/shm tmp scratch)
chmod 1777 "$folder/tmp" "$folder/scratch" "$folder/dev/shm"
cp -R "$support/etc/." "$folder/etc"
cp "$support/bin/cat" "$support/bin/su" "$folder/opt/bin"
links=
for name in /bin /sbin /lib /lib32 /lib64 /libx32; do
    if [ -L "$name" ]; then
        links="$links $name"
    elif [ -d "$name" ]; then
        set -- -b "$name" "$@"
    fi
done
[ -z "$links" ] || cp -P $links "$folder"
cp -P /dev/fd /dev/stdin /dev/stdout /dev/stderr "$folder/dev"

# Who runs this is root by name: the bus knows its users by number. A program that changes its user
# cannot be traced any further, so the stand-in serves for `su`.
if [ "$real_root" != 0 ]; then
    sed -i "s/^root:x:0:0:/root:x:$real_root:$(id -g):/" "$folder/etc/passwd"
    sed -i "s/^root:x:0:/root:x:$(id -g):/" "$folder/etc/group"
fi

for file in /dev/null /dev/zero /dev/full /dev/random /dev/urandom /dev/tty /dev/ptmx /dev/pts $host_files; do
    [ ! -e "$file" ] || set -- -b "$file" "$@"
done
old_ifs=$IFS
IFS=:
for dir in ${BV_ROOT_READ:-}; do
    set -- -b "$dir" "$@"
done
IFS=$old_ifs
[ -z "${BV_ROOT_WRITE:-}" ] || set -- -b "$BV_ROOT_WRITE" "$@"

unset LD_PRELOAD LD_LIBRARY_PATH
proot=$(command -v proot)
PROOT_TMP_DIR=${TMPDIR:-/tmp}
# A heap that grows step by step ends in a fault below proot, so the first step is a large one.
MALLOC_TOP_PAD_=536870912
export MALLOC_TOP_PAD_
PATH=$inside_path HOME=/root SHELL=/bin/sh LC_ALL=C TMPDIR=/tmp
export PROOT_TMP_DIR PATH HOME SHELL LC_ALL TMPDIR

"$proot" -r "$folder" -b /usr -b /proc -b "$source_tree" -w /scratch "$@" || :
exit "$(cat "$folder/.status")"
