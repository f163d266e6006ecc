# cache.sh: where the tools for the target are kept, and how a step of their making runs once.
# Sourced by the scripts beside it.
#
# The folder lies outside the tree, so that it outlives clean checkouts; BV_TARGET_CACHE moves it.
# It may be removed at any time: what is missing is made again.

cache=${BV_TARGET_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/libbv-target}

say() { echo "target: $*" >&2; }
fail() {
    say "$*"
    exit 1
}

# The emulated gateway's kernel, or a word of where it comes from.
need_kernel() {
    [ -e "$cache/kernel/version" ] || fail "no kernel in $cache; 'tools/target/setup kernel' fetches it"
}

# installed PACKAGE: whether a Debian package is on this machine.
installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2> /dev/null || true)" = installed ]
}

# need_packages PACKAGE...: installs the missing ones.
need_packages() {
    missing=
    for package; do
        installed "$package" || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    sudo=
    [ "$(id -u)" = 0 ] || sudo=sudo
    say "installing:$missing"
    $sudo apt-get update -qq || say "the package lists could not be refreshed, trying with the old ones"
    # shellcheck disable=SC2086 # one word a package
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing > /dev/null ||
        fail "these packages could not be installed:$missing"
}

# once NAME VERSION FUNCTION: runs a step unless the same version of it is done. A step that broke
# off leaves no stamp and starts afresh the next time.
once() {
    stamp=$cache/stamps/$1-$2
    [ -e "$stamp" ] && return 0
    say "making $1 (kept in $cache)"
    mkdir -p "$cache/logs" "$cache/stamps"
    log=$cache/logs/$1.log
    start=$(date +%s)
    # In a shell of its own, so that `set -e` holds inside.
    if ! "$self" --step "$3" > "$log" 2>&1; then
        tail -n 25 "$log" >&2
        fail "$1 could not be made; all of it is in $log"
    fi
    rm -f "$cache/stamps/$1"-*
    : > "$stamp"
    say "$1 took $(($(date +%s) - start)) s"
}
