#compdef kelctl
# Completes the command line of kelctl(1) in zsh.

_kelctl() {
    local curcontext=$curcontext state line
    local -a help commands
    typeset -A opt_args
    help=(
        '(- *)'{-h,--help}'[print a summary and exit]'
        '--test[use the test channel]'
        "--verbose[show the library's log]"
    )
    commands=(
        'set-policy:set the policy of the agent'
        'monitor:print the events of the agent'
        'status:tell whether an agent runs'
        'report:ask for an issue report'
        'reports:list the reports, or print one'
        'klog:print the newest lines of the kernel log'
        'policy:tell which policy file applies'
        'process-info:have the agent ask for process information'
        'trace:show what the channel carries'
        'replay:send again what a trace has kept'
        'doctor:look at this machine, and tell what is wrong'
    )

    _arguments -C $help '(- *)--version[print the version and exit]' \
        '1: :->command' '*:: :->arguments' && return

    case $state in
    command) _describe -t commands command commands ;;
    arguments)
        case $line[1] in
        set-policy) _arguments $help '1:policy:_files' ;;
        monitor)
            _arguments $help '--json[a JSON object for each event]' \
                '--count[end after so many events]:events: ' \
                '--timeout[end after so many seconds]:seconds: '
            ;;
        status)
            _arguments $help '--json[print a JSON object]' \
                '--clients[tell what it knows of each application]' \
                '--watch[go on, and show what changes]'
            ;;
        policy)
            _arguments $help '--json[print a JSON object]' \
                "--print[print the text of the agent's own policy]" \
                "--state-dir[the agent's directory of state]:directory:_files -/"
            ;;
        report)
            _arguments $help \
                '--process[the process that it is about]:name: ' \
                '--thread[the thread that it is about]:name: ' \
                '--mode[the send mode]:mode:(oqc-always always once-only policy)' \
                '--path[a file that the report is to have]:file:_files' \
                '--reboot[ask for a restart, too]' \
                '--slot[leave the request in the key-value store]' \
                '--wait[wait for the report, and print its number]' \
                '--timeout[wait for so many seconds at most]:seconds: ' \
                "--state-dir[the agent's directory of state]:directory:_files -/"
            ;;
        reports)
            _arguments $help '--json[print JSON]' \
                '--since[only those of this time or age, and newer ones]:time: ' \
                '--older-than[only those of more than this age]:age: ' \
                '--process[only those about this process]:name: ' \
                '--user[only those that this user asked for]:user:_users' \
                '--mode[only those of this mode]:mode:(oqc-always always once-only policy)' \
                '--sort[sort them]:key:(id time process user mode size)' \
                '--reverse[turn the order round]' \
                '--follow[go on with those that are new]' \
                '--html[write them to a page for a browser]:file:_files' \
                '--remove[remove them]' \
                "--state-dir[the agent's directory of state]:directory:_files -/" '*:report: '
            ;;
        process-info) _arguments $help ;;
        trace)
            _arguments $help "--input[show a file's messages]:file:_files" \
                '--output[keep the messages in a file]:file:_files'
            ;;
        replay)
            _arguments $help '--as[what to be]:part:(agent applications)' \
                '--speed[so many times as fast as it was]:factor: ' '1:recording:_files'
            ;;
        doctor)
            _arguments $help '--json[print a JSON array]' \
                "--state-dir[the agent's directory of state]:directory:_files -/"
            ;;
        klog) _arguments $help '--follow[go on with new lines]' ;;
        esac
        ;;
    esac
}

_kelctl "$@"
