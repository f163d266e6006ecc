# SPDX-License-Identifier: ISC
# Completion for bash: verbs, and what the running services have.

# _bv_ctl_names KIND: of the service of -s, if there is one.
_bv_ctl_names() { bv-ctl ${service:+-s "$service"} names 2> /dev/null | sed -n "s/^$1 //p"; }

_bv_ctl() {
    local word=$2 verb='' before='' family='' service='' at words=''
    for ((at = 1; at < COMP_CWORD; at++)); do
        case ${COMP_WORDS[at]} in
        -s | --service)
            at=$((at + 1))
            [ "$at" = "$COMP_CWORD" ] || service=${COMP_WORDS[at]} ;;
        -*) ;;
        *) if [ -z "$verb" ]; then verb=${COMP_WORDS[at]}; else before=${before:-${COMP_WORDS[at]}}; fi ;;
        esac
    done
    compopt +o nospace
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    -s | --service) verb=status ;;
    esac
    case $verb in
    '') words='list show set add del diff commit revert reset export import watch debug status wait' ;;
    list | commit | status | wait) words=$(_bv_ctl_names service) ;;
    export | import) compopt -o default ;;
    diff | revert | reset | watch) words=$(_bv_ctl_names family) ;;
    del) words=$(_bv_ctl_names instance) ;;
    show)
        words="$(_bv_ctl_names family) $(_bv_ctl_names instance)" ;;
    set | add)
        if [ -z "$before" ]; then
            words="$(_bv_ctl_names family) $(_bv_ctl_names instance)"
        else
            family=$(_bv_ctl_names family | while read -r at; do
                case $before. in "$at".* | "${at%.json}".*) echo "$at" ;; esac
            done | tail -n 1)
            words=$(_bv_ctl_names parameter | sed -n "s/^$family \(.*\)/\1=/p")
            compopt -o nospace
        fi ;;
    esac
    case $word in
    -*) words='--service --json --help --version' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -F _bv_ctl bv-ctl
