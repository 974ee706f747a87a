# Completion of jvx-simulator for bash: the options of its help, and files                           -*- shell-script -*-

complete -F _longopt jvx-simulator
