# Completes the command line of kel-testbus(1) in bash.
# shellcheck shell=bash

_kel_testbus() {
    local current=$2 previous=$3 i
    COMPREPLY=()

    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i]} == -- ]]; then # the command's own words
            ((i + 1 < COMP_CWORD)) || mapfile -t COMPREPLY < <(compgen -c -- "$current")
            compopt -o filenames 2>/dev/null
            local files
            mapfile -t files < <(compgen -f -- "$current")
            COMPREPLY+=("${files[@]}")
            return
        fi
    done
    local words='--agent --test --verbose --help --version --'
    if [[ $previous == --agent ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        words='none reference'
    fi
    local found
    mapfile -t found < <(compgen -W "$words" -- "$current")
    COMPREPLY+=("${found[@]}")
}

complete -F _kel_testbus kel-testbus
