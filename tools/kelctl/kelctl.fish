# Completes the command line of kelctl(1) in fish.

set -l commands set-policy monitor status report reports klog policy process-info trace replay doctor
set -l none "not __fish_seen_subcommand_from $commands"

complete -c kelctl -f
complete -c kelctl -s h -l help -d 'print a summary and exit'
complete -c kelctl -l test -d 'use the test channel'
complete -c kelctl -l verbose -d "show the library's log"
complete -c kelctl -n $none -l version -d 'print the version and exit'

complete -c kelctl -n $none -a set-policy -d 'set the policy of the agent'
complete -c kelctl -n $none -a monitor -d 'print the events of the agent'
complete -c kelctl -n $none -a status -d 'tell whether an agent runs'
complete -c kelctl -n $none -a report -d 'ask for an issue report'
complete -c kelctl -n $none -a reports -d 'list the reports, or print one'
complete -c kelctl -n $none -a klog -d 'print the newest lines of the kernel log'
complete -c kelctl -n $none -a policy -d 'tell which policy file applies'
complete -c kelctl -n $none -a process-info -d 'have the agent ask for process information'
complete -c kelctl -n $none -a trace -d 'show what the channel carries'
complete -c kelctl -n $none -a replay -d 'send again what a trace has kept'
complete -c kelctl -n $none -a doctor -d 'look at this machine, and tell what is wrong'

complete -c kelctl -n '__fish_seen_subcommand_from set-policy' -F
complete -c kelctl -n '__fish_seen_subcommand_from monitor status reports policy doctor' -l json -d 'print JSON'
complete -c kelctl -n '__fish_seen_subcommand_from status' -l clients -d 'tell what it knows of each application'
complete -c kelctl -n '__fish_seen_subcommand_from status' -l watch -d 'go on, and show what changes'
complete -c kelctl -n '__fish_seen_subcommand_from monitor' -x -l count -d 'end after so many events'
complete -c kelctl -n '__fish_seen_subcommand_from monitor' -x -l timeout -d 'end after so many seconds'
complete -c kelctl -n '__fish_seen_subcommand_from report' -x -l process -d 'the process that it is about'
complete -c kelctl -n '__fish_seen_subcommand_from report' -x -l thread -d 'the thread that it is about'
complete -c kelctl -n '__fish_seen_subcommand_from report' -x -l mode \
    -a 'oqc-always always once-only policy' -d 'the send mode'
complete -c kelctl -n '__fish_seen_subcommand_from report' -r -F -l path -d 'a file that the report is to have'
complete -c kelctl -n '__fish_seen_subcommand_from report' -l reboot -d 'ask for a restart, too'
complete -c kelctl -n '__fish_seen_subcommand_from report' -l slot -d 'leave the request in the key-value store'
complete -c kelctl -n '__fish_seen_subcommand_from report' -l wait -d 'wait for the report'
complete -c kelctl -n '__fish_seen_subcommand_from report' -x -l timeout -d 'wait for so many seconds at most'
complete -c kelctl -n '__fish_seen_subcommand_from policy' -l print -d "print the text of the agent's own policy"
complete -c kelctl -n '__fish_seen_subcommand_from report reports policy doctor' -x -l state-dir \
    -a '(__fish_complete_directories)' -d "the agent's directory of state"
complete -c kelctl -n '__fish_seen_subcommand_from reports' -x -l since -d 'only those of this time or age, and newer ones'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -x -l older-than -d 'only those of more than this age'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -x -l process -d 'only those about this process'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -x -l user -a '(__fish_complete_users)' -d 'only those that this user asked for'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -x -l mode \
    -a 'oqc-always always once-only policy' -d 'only those of this mode'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -x -l sort -a 'id time process user mode size' -d 'sort them'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -l reverse -d 'turn the order round'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -l follow -d 'go on with those that are new'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -r -F -l html -d 'write them to a page for a browser'
complete -c kelctl -n '__fish_seen_subcommand_from reports' -l remove -d 'remove them'
complete -c kelctl -n '__fish_seen_subcommand_from trace' -r -F -l input -d "show a file's messages"
complete -c kelctl -n '__fish_seen_subcommand_from trace' -r -F -l output -d 'keep the messages in a file'
complete -c kelctl -n '__fish_seen_subcommand_from replay' -F
complete -c kelctl -n '__fish_seen_subcommand_from replay' -x -l as -a 'agent applications' -d 'what to be'
complete -c kelctl -n '__fish_seen_subcommand_from replay' -x -l speed -d 'so many times as fast as it was'
complete -c kelctl -n '__fish_seen_subcommand_from klog' -l follow -d 'go on with new lines'
