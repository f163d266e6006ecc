# SPDX-License-Identifier: ISC
# Completion for bash: verbs, and what the running services have. A service can have any names: they
# are only compared, and quoted where they are offered, since the line is run afterwards.

# _bv_ctl_add KIND [END]: adds the names of a kind, each with END, to `words`; of the service of -s,
# if there is one.
_bv_ctl_add() {
    local line
    while read -r line; do
        case $line in "$1 "*) words+=("${line#"$1 "}${2-}") ;; esac
    done < <(bv-ctl ${service:+-s "$service"} names 2> /dev/null)
}

_bv_ctl() {
    local word=$2 verb='' before='' family='' service='' at quoted words=()
    for ((at = 1; at < COMP_CWORD; at++)); do
        case ${COMP_WORDS[at]} in
        -s | --service)
            [ "${COMP_WORDS[at + 1]}" != = ] || at=$((at + 1))
            at=$((at + 1))
            [ "$at" -ge "$COMP_CWORD" ] || service=${COMP_WORDS[at]} ;;
        =) at=$((at + 1)) ;; # and the value
        -*) ;;
        *) if [ -z "$verb" ]; then verb=${COMP_WORDS[at]}; else before=${before:-${COMP_WORDS[at]}}; fi ;;
        esac
    done
    compopt +o nospace
    # What is before the word. bash makes a word of the = in NAME=VALUE and --service=NAME, and right
    # after it the word is empty.
    at=$((COMP_CWORD - 1))
    [ "${COMP_WORDS[COMP_CWORD]}" != = ] || at=$COMP_CWORD
    case ${COMP_WORDS[at]} in
    =) if [ "${COMP_WORDS[at - 1]}" = --service ]; then verb=status; else verb=value; fi ;;
    -s | --service) verb=status ;;
    esac
    case $verb in
    '') words=(list show set add del diff commit revert reset export import watch debug status wait) ;;
    list | commit | status | wait) _bv_ctl_add service ;;
    export | import) compopt -o default ;;
    diff | revert | reset | watch) _bv_ctl_add family ;;
    del) _bv_ctl_add instance ;;
    show)
        _bv_ctl_add family
        _bv_ctl_add instance ;;
    set | add)
        _bv_ctl_add family
        if [ -z "$before" ]; then
            _bv_ctl_add instance
        else
            for at in "${words[@]}"; do
                printf -v quoted %q "${at%.json}"
                case $before. in "$quoted".*) [ ${#at} -lt ${#family} ] || family=$at ;; esac
            done
            words=()
            [ -z "$family" ] || _bv_ctl_add "parameter $family" =
            compopt -o nospace
        fi ;;
    esac
    case $verb$word in
    value*) ;;
    commit-*) words=(--service --json --help --version --factory) ;;
    *) case $word in -*) words=(--service --json --help --version) ;; esac ;;
    esac
    COMPREPLY=()
    for at in "${words[@]}"; do
        printf -v quoted %q "$at"
        case $quoted in "$word"*) COMPREPLY+=("$quoted") ;; esac
    done
}

complete -F _bv_ctl bv-ctl
