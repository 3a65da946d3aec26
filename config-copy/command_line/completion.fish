# Completion of config-copy(1) for fish. The options stand above it in what is installed.

# The arguments before this one, without options, their values and the profile. An agent stands for
# those of a hosts file.
function __config_copy_arguments
    set -l wants_value
    set -l arguments
    set -l agent
    for word in (commandline -opc)[2..-1]
        if set -q wants_value[1]
            set -e wants_value
            set wants_value
        else if contains -- $word $__config_copy_with_value
            set wants_value yes
        else if not string match -qr '^(-.|@)' -- $word
            set -a arguments $word
        end
        string match -q -- '--hosts*' $word; and set agent agent
    end
    if contains -- "$arguments[1]" diff list errors abort report
        printf '%s\n' $arguments[1] $agent $arguments[2..-1]
    else
        printf '%s\n' copy $agent $arguments
    end
end

# Whether this is the argument of that number, from 1, of one of these commands.
function __config_copy_is
    set -l arguments (__config_copy_arguments)
    test (count $arguments) -eq $argv[1]; and contains -- $arguments[1] $argv[2..-1]
end

complete -c config-copy -f
complete -c config-copy -n '__config_copy_is 1 copy' -a 'diff list errors abort report'
complete -c config-copy -n '__config_copy_is 1 copy' \
    -a '@(config-copy --completion profiles 2>/dev/null)'
complete -c config-copy -n '__config_copy_is 1 copy diff list errors abort' \
    -a '(__fish_print_hostnames)'
complete -c config-copy -n '__config_copy_is 1 report' \
    -a '(__fish_complete_directories (commandline -ct))'
complete -c config-copy -n '__config_copy_is 2 copy diff; or __config_copy_is 3 copy diff' \
    -F -a 'running startup'
complete -c config-copy -n '__config_copy_is 3 copy' -a 'fabric-startup all-startup'
complete -c config-copy -n '__config_copy_is 2 copy; or __config_copy_is 3 copy' \
    -a 'tftp:// ftp:// sftp:// scp://'
