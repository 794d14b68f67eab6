# Completes the command line of kelctl(1) in bash.
# shellcheck shell=bash

_kelctl() {
    local current=$2 previous=$3 command=${COMP_WORDS[1]}
    local words=
    COMPREPLY=()

    if [[ $COMP_CWORD -eq 1 ]]; then
        words='set-policy monitor status --help --version'
    else
        case $command in
        set-policy)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            words='--help'
            ;;
        monitor)
            case $previous in
            --count | --timeout) return ;; # a number of the user's own
            esac
            words='--count --json --timeout --help'
            ;;
        status) words='--json --help' ;;
        esac
    fi
    local found
    mapfile -t found < <(compgen -W "$words" -- "$current")
    COMPREPLY+=("${found[@]}")
}

complete -F _kelctl kelctl
