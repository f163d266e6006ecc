# SPDX-License-Identifier: ISC
# root.sh: minimal Debian roots of their own. Sourced by scripts whose $0 is in tests/package; they run
# as root, which takes sudo otherwise. `source` is the tree, `work` a scratch folder.

source=$(cd "$(dirname "$0")/../.." && pwd -P)
. "$source/scripts/cache.sh"
[ "$(id -u)" = 0 ] || exec sudo env BV_TARGET_CACHE="$cache" "$0" "$@"

"$source/scripts/install-deps" bubblewrap git
"$source/scripts/setup-target" debian > /dev/null
# Packages and their lists are fetched once for all roots, so there is one such script at a time.
exec 9> "$cache/debian/lock"
flock 9

script=$(basename "$0")
work=$(mktemp -d "${TMPDIR:-/tmp}/bv-$script.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
log=$work/log
fail() { echo "$script: $*" >&2; exit 1; }
step() { echo "== $*, after $(($(date +%s) - begin)) s"; }
begin=$(date +%s)

# quietly WHAT COMMAND...: shows what a command printed only when it fails.
quietly() {
    what=$1
    shift
    "$@" > "$log" 2>&1 || { tail -n 60 "$log"; fail "$what"; }
}

# clone DIR: what is committed.
clone() { quietly 'git clone' git -c safe.directory='*' clone -q "$source" "$1"; }

# new_root DIR: a minimal Debian. In it apt fetches as root, and dpkg does not wait for the disk.
new_root() {
    mkdir -p "$1" "$cache/debian/lists" "$cache/debian/archives"
    tar xf "$cache/debian/root.tar.gz" --numeric-owner -C "$1"
    echo 'APT::Sandbox::User "root";' > "$1/etc/apt/apt.conf.d/50sandbox"
    echo force-unsafe-io > "$1/etc/dpkg/dpkg.cfg.d/unsafe-io"
    mkdir -p "$1/work"
}

# inside ROOT [--online] COMMAND...: in a root, as its user 0; `$work/share` is /work there. Without
# a network but its own, or with this machine's, for apt.
inside() {
    root=$1 network=--unshare-net
    shift
    [ "$1" != --online ] || { network=--share-net; shift; }
    # shellcheck disable=SC2086
    bwrap --unshare-pid --unshare-ipc --unshare-uts $network --die-with-parent --new-session --cap-add ALL \
        --bind "$root" / --bind "$work/share" /work --proc /proc --dev /dev --tmpfs /tmp --tmpfs /run \
        --bind "$cache/debian/lists" /var/lib/apt/lists --bind "$cache/debian/archives" /var/cache/apt/archives \
        --ro-bind /etc/resolv.conf /etc/resolv.conf --clearenv --setenv HOME /root --setenv LC_ALL C.UTF-8 \
        --setenv PATH /usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        --setenv DEBIAN_FRONTEND noninteractive --setenv PYTHONDONTWRITEBYTECODE 1 --chdir /work "$@"
}

# files ROOT: every file and folder that a package or an installation may have left.
files() {
    (cd "$1" && find . -path ./work -prune -o -path ./tmp -prune -o -path ./run -prune -o \
        -path ./var/cache -prune -o -path ./var/log -prune -o -path ./var/lib/apt -prune -o -print) | sort
}
mkdir "$work/share"
