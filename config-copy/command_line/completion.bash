# shellcheck shell=bash disable=SC2154
# Completion of config-copy(1) for bash. The options stand above it in what is installed.

# Offers the words of $1 that begin with the word.
_config_copy_offer() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word"); }

_config_copy() {
    local word=$2 line=${COMP_LINE:0:COMP_POINT} previous i option wants_value='' has_hosts=''
    local -a arguments=() words
    COMPREPLY=()
    # Bash also splits words at colons, and URLs contain colons.
    read -ra words <<<"$line"
    [[ $line == *[[:space:]] ]] && words+=('')
    previous=${words[-2]}

    if [[ " ${_config_copy_with_file[*]} " == *" $previous "* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        compopt -o filenames 2>/dev/null
        return
    elif [[ " ${_config_copy_with_value[*]} " == *" $previous "* ]]; then
        _config_copy_offer "${_config_copy_words[$previous]-}"
        return
    elif [[ $word == -?* ]]; then
        _config_copy_offer "${_config_copy_options[*]}"
        return
    fi

    # The arguments before this one, without options and their values.
    for ((i = 1; i < ${#words[@]} - 1; i++)); do
        option=${words[i]}
        if [[ -n $wants_value ]]; then
            wants_value=
        elif [[ " ${_config_copy_with_value[*]} " == *" $option "* ]]; then
            wants_value=yes
        elif [[ $option != -?* ]]; then
            arguments+=("$option")
        fi
        [[ $option == --hosts* ]] && has_hosts=yes
    done

    local commands='diff list errors abort report'
    if [[ ${#arguments[@]} -eq 0 && $word == @* ]]; then
        _config_copy_offer "$(config-copy --completion profiles 2>/dev/null | sed 's/^/@/')"
        return
    fi
    [[ ${arguments[0]-} == @* ]] && arguments=("${arguments[@]:1}")
    local command=
    if [[ ${#arguments[@]} -gt 0 && " $commands " == *" ${arguments[0]} "* ]]; then
        command=${arguments[0]}
        arguments=("${arguments[@]:1}")
    fi
    [[ -n $has_hosts ]] && arguments=(agent "${arguments[@]}")
    local from='running startup' urls='tftp:// ftp:// sftp:// scp://'
    case $command.${#arguments[@]} in
        .0) mapfile -t COMPREPLY < <(compgen -W "$commands" -A hostname -- "$word") ;;
        report.0) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        *.0) mapfile -t COMPREPLY < <(compgen -A hostname -- "$word") ;;
        .1) _config_copy_offer "$from $urls" ;;
        .2) _config_copy_offer "$from fabric-startup all-startup $urls" ;;
        diff.[12]) _config_copy_offer "$from" ;;
        *) return ;;
    esac
    if [[ ${#arguments[@]} -gt 0 ]]; then
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
    fi
    # No blank: the rest of the URL follows directly.
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *:// ]] && compopt -o nospace 2>/dev/null
    return 0
}

complete -F _config_copy config-copy
