# Completion of jvx-loader for fish

function __jvx_loader_kinds
    printf '%s\t%s\n' settings settings firmware firmware keys keys road-acc 'road accident' can-decode 'CAN decode' \
        tachograph-ddd 'tachograph DDD' fls-firmware 'firmware of the fuel level sensor' \
        complexevents 'ComplexEvents program' fls-archive 'archive of the fuel level sensor' \
        can-scripts 'CAN scripts' epo 'EPO file' user-firmware 'user firmware'
end

# The USB serial devices by their names, and a path where one was begun.
function __jvx_loader_ports
    set -l begun (commandline --current-token)
    if string match --quiet '*/*' -- $begun
        __fish_complete_path $begun
    else
        set -l devices /dev/ttyACM* /dev/ttyUSB*
        set -l links /dev/serial/by-id/*
        string replace /dev/ '' -- $devices
        printf '%s\n' $links
    end
end

function __jvx_loader_has_file
    set -l words (commandline --tokenize --cut-at-cursor --current-process)
    argparse f/file= r/read w/write p/port= a/apply m/monitor l/log= h/help help-all v/version -- $words[2..] 2>/dev/null
    test (count $argv) -gt 0
end

complete -c jvx-loader -s f -l file -x -d 'Kind of file' -a '(__jvx_loader_kinds)'
complete -c jvx-loader -s r -l read -d 'Read the file from the terminal'
complete -c jvx-loader -s w -l write -d 'Write the file to the terminal'
complete -c jvx-loader -s p -l port -x -d 'Serial port' -a '(__jvx_loader_ports)'
complete -c jvx-loader -s a -l apply -d 'Apply the written file'
complete -c jvx-loader -s m -l monitor -d 'Print the log'
complete -c jvx-loader -s l -l log -x -d 'Log mask, hexadecimal'
complete -c jvx-loader -s h -l help -d 'Show the options'
complete -c jvx-loader -l help-all -d 'Show the options, those of the framework too'
complete -c jvx-loader -s v -l version -d 'Show the version'
complete -c jvx-loader -n __jvx_loader_has_file -f
