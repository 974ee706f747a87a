# Completion of jvx-simulator for fish: the options of its help, "  --name <text>  What it does."

jvx-simulator --help 2>/dev/null | while read -l line
    set -l parts (string match --regex --groups-only '^  --(\S+)(?: (<\S+>))?(?: +(.*))?$' -- $line)
    or continue
    if string match --quiet -- '<*' "$parts[2]"
        complete -c jvx-simulator -l $parts[1] -r -d "$parts[3]"
    else
        complete -c jvx-simulator -l $parts[1] -d "$parts[3]"
    end
end
complete -c jvx-simulator -s h -l help -d 'Show the options'
complete -c jvx-simulator -s v -l version -d 'Show the version'
