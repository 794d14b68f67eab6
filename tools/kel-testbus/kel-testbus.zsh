#compdef kel-testbus
# Completes the command line of kel-testbus(1) in zsh.

_arguments -S '(- *)'{-h,--help}'[print a summary and exit]' \
    '(- *)--version[print the version and exit]' \
    '--agent[who is the agent]:agent:{_alternative "words:agent:(none reference)" "files:script:_files"}' \
    '--test[the agent serves the test channel]' \
    '--verbose[show what bus and agent say]' \
    '*::command:_normal'
