# Completion of config-copy(1) for zsh. The options stand above it in what is installed.
local curcontext=$curcontext state
local -a line commands=(diff list errors abort report) from=(running startup) to arguments
local -a urls=(tftp:// ftp:// sftp:// scp://)
typeset -A opt_args
to=($from fabric-startup all-startup)

_arguments -s -S -C $config_copy_options '*: :->argument' && return 0
[[ $state == argument ]] || return 1

# The arguments before this one.
arguments=(${line[1,-2]})
if [[ $#arguments -eq 0 && $PREFIX == @* ]]; then
    compadd -- @${^${(f)"$(config-copy --completion profiles 2>/dev/null)"}}
    return
fi
[[ ${arguments[1]} == @* ]] && shift arguments
local command=
if (( ${commands[(Ie)${arguments[1]}]} )); then
    command=$arguments[1]
    shift arguments
fi
(( ${+opt_args[--hosts]} )) && arguments=(agent $arguments)
case $command.$#arguments in
    .0) compadd -- $commands; _hosts ;;
    report.0) _files -/ ;;
    *.0) _hosts ;;
    .1) compadd -- $from; compadd -S '' -- $urls; _files ;;
    .2) compadd -- $to; compadd -S '' -- $urls; _files ;;
    diff.[12]) compadd -- $from; _files ;;
esac
