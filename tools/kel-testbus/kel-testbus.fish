# Completes the command line of kel-testbus(1) in fish.

complete -c kel-testbus -s h -l help -d 'print a summary and exit'
complete -c kel-testbus -l version -d 'print the version and exit'
complete -c kel-testbus -r -F -l agent -a 'none reference' -d 'who is the agent'
complete -c kel-testbus -l test -d 'the agent serves the test channel'
complete -c kel-testbus -l verbose -d 'show what bus and agent say'
