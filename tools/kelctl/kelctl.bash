# Completes the command line of kelctl(1) in bash.
# shellcheck shell=bash

_kelctl() {
    local current=$2 previous=$3 command=${COMP_WORDS[1]}
    local words=
    COMPREPLY=()

    if [[ $COMP_CWORD -eq 1 ]]; then
        words='set-policy monitor status report reports klog policy process-info trace replay doctor --help --test --verbose --version'
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
        status) words='--clients --json --watch --help' ;;
        policy | doctor)
            if [[ $previous == --state-dir ]]; then
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -d -- "$current")
                return
            fi
            words='--json --state-dir --help'
            [[ $command == doctor ]] || words="--print $words"
            ;;
        report)
            case $previous in
            --process | --thread | --timeout) return ;; # names and a number of the user's own
            --state-dir)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -d -- "$current")
                return
                ;;
            --mode) words='oqc-always always once-only policy' ;;
            --path)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
                ;;
            *) words='--process --thread --mode --path --reboot --slot --state-dir --timeout --wait --help' ;;
            esac
            ;;
        reports)
            case $previous in
            --since | --older-than | --process) return ;; # the user's own
            --user) words=$(compgen -u -- "$current") ;;
            --mode) words='oqc-always always once-only policy' ;;
            --sort) words='id time process user mode size' ;;
            --html)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
                ;;
            --state-dir)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -d -- "$current")
                return
                ;;
            *)
                words='--since --older-than --process --user --mode --sort --reverse --json --follow
                    --html --remove --state-dir --help'
                ;;
            esac
            ;;
        klog) words='--follow --help' ;;
        process-info) words='--help' ;;
        trace)
            case $previous in
            --input | --output)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
                ;;
            esac
            words='--input --output --help'
            ;;
        replay)
            case $previous in
            --speed) return ;; # a number of the user's own
            --as) words='agent applications' ;;
            *)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                words='--as --speed --help'
                ;;
            esac
            ;;
        esac
        if [[ $words == *--help ]]; then # it is an option's turn
            words+=' --test --verbose'
        fi
    fi
    local found
    mapfile -t found < <(compgen -W "$words" -- "$current")
    COMPREPLY+=("${found[@]}")
}

complete -F _kelctl kelctl
