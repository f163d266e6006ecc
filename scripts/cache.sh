# SPDX-License-Identifier: ISC
# cache.sh: where the compilers, libraries and kernel for the target are kept. Sourced.
#
# The folder is outside the tree, so that it outlives clean checkouts; BV_TARGET_CACHE moves it. It
# may be removed at any time: scripts/setup-target makes what is missing again.

cache=${BV_TARGET_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/libbv-target}

say() { echo "target: $*" >&2; }
fail() {
    say "$*"
    exit 1
}

need_kernel() {
    [ -e "$cache/kernel/version" ] || fail "no kernel in $cache; 'scripts/setup-target kernel' fetches it"
}
