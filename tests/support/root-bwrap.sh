# SPDX-License-Identifier: ISC
# root-bwrap.sh: the private root made of namespaces. Sourced by `root`, whose variables it uses.

set -- -- "$@"
# /bin, /lib and their like are links into /usr on a merged system and folders elsewhere.
for name in bin sbin lib lib32 lib64 libx32; do
    if [ -L "$programs/$name" ]; then
        set -- --symlink "$(readlink "$programs/$name")" "/$name" "$@"
    elif [ -d "$programs/$name" ]; then
        set -- --ro-bind "$programs/$name" "/$name" "$@"
    fi
done

[ -z "${BV_ROOT_WRITE:-}" ] || set -- --bind "$BV_ROOT_WRITE" "$BV_ROOT_WRITE" "$@"
old_ifs=$IFS
IFS=:
for dir in ${BV_ROOT_READ:-}; do
    IFS=$old_ifs
    if [ "$emulation" = wrapped ]; then
        for program in $(target_programs "$dir"); do
            set -- --ro-bind "$support/bin/emulated" "$program" "$@"
        done
        set -- --ro-bind "$dir" "/emulated$dir" "$@"
    fi
    set -- --ro-bind "$dir" "$dir" "$@"
done
IFS=$old_ifs

# Real root keeps the capabilities that a gateway's services have: changing users, and devices'
# owners. Anyone else is root in a user namespace of one user, where a real `su` cannot work, so a
# stand-in on the PATH records its arguments and runs the command.
if [ "$real_root" = 0 ]; then
    set -- --cap-add CAP_SETUID --cap-add CAP_SETGID --cap-add CAP_CHOWN --cap-add CAP_FOWNER \
        --cap-add CAP_DAC_OVERRIDE --cap-add CAP_DAC_READ_SEARCH --cap-add CAP_KILL \
        --cap-add CAP_NET_ADMIN --cap-add CAP_SYS_PTRACE --cap-add CAP_MKNOD "$@"
else
    set -- --ro-bind "$support/bin/su" /opt/bin/su "$@"
    [ "$emulation" = own ] || set -- --unshare-user --uid 0 --gid 0 "$@"
fi

for name in passwd group shadow nsswitch.conf pam.d; do
    set -- --ro-bind "$support/etc/$name" "/etc/$name" "$@"
done
for file in $host_files; do
    [ -n "$programs" ] || set -- --ro-bind-try "$file" "$file" "$@"
done

# /config/work is a small disk (4 MiB), as on the gateway: tests can fill it.
exec bwrap --unshare-pid --unshare-net --unshare-ipc --unshare-uts --unshare-cgroup-try \
    --die-with-parent --new-session --hostname gateway \
    --tmpfs / --ro-bind "$programs/usr" /usr \
    --dir /etc --dir /etc/template --dir /config/factory --size 4194304 --tmpfs /config/work \
    --dir /var/run --dir /var/tmp --dir /run --dir /home --dir /root --dir /opt/bin \
    --ro-bind "$support/bin/cat" /opt/bin/cat \
    --proc /proc --dev /dev --perms 1777 --tmpfs /tmp --perms 1777 --tmpfs /scratch --perms 1777 --tmpfs /dev/shm \
    --ro-bind "$source_tree" "$source_tree" \
    --setenv PATH "$inside_path" --setenv HOME /root --setenv SHELL /bin/sh --setenv LC_ALL C --setenv TMPDIR /tmp \
    --unsetenv BV_ROOT_INSIDE --unsetenv LD_PRELOAD --unsetenv LD_LIBRARY_PATH --chdir /scratch "$@"
