# Completion of jvx-loader for bash                                                              -*- shell-script -*-

_jvx_loader()
{
    local cur prev words cword split
    _init_completion -s || return

    case $prev in
    --file | -f)
        COMPREPLY=($(compgen -W 'settings firmware keys road-acc can-decode tachograph-ddd fls-firmware complexevents
            fls-archive can-scripts epo user-firmware' -- "$cur"))
        return
        ;;
    --port | -p)
        _jvx_loader_ports
        return
        ;;
    --log | -l)
        return
        ;;
    esac
    $split && return

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W '-f --file -r --read -w --write -p --port -a --apply -m --monitor -l --log -h --help
            --help-all -v --version' -- "$cur"))
        return
    fi

    local args
    _count_args = '@(-f|--file|-p|--port|-l|--log)'
    ((args == 1)) && _filedir
}

# The USB serial devices by their names, and a path where one was begun.
_jvx_loader_ports()
{
    if [[ $cur == */* ]]; then
        _filedir
        return
    fi
    local devices
    devices=$(compgen -G '/dev/tty@(ACM|USB)*' | sed 's,/dev/,,')
    COMPREPLY=($(compgen -W "$devices $(compgen -G '/dev/serial/by-id/*')" -- "$cur"))
}

complete -F _jvx_loader jvx-loader
