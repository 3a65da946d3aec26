#!/bin/bash
# progress.sh [--log FILE] TEXT COMMAND…: runs COMMAND and shows, under the name TEXT, its progress
# and the time it took: every second on a terminal, every ten seconds elsewhere. It reads the
# progress that ninja, ctest and apt-get (with APT::Status-Fd) print. COMMAND's output goes to FILE;
# without FILE it is shown only if COMMAND fails.
set -uo pipefail

kept=
if [[ $1 == --log ]]; then
    kept=$2
    shift 2
fi
log=${kept:-$(mktemp)}
[[ $kept ]] || trap 'rm -f "$log"' EXIT
text=$1
shift

on_terminal=
every=10
last=$SECONDS
if [[ -t 1 ]]; then
    on_terminal=yes
    every=1
fi

tell() {
    if [[ $on_terminal ]]; then
        printf '\r\033[K%s: %s' "$text" "$1"
    else
        printf '%s: %s, %d s\n' "$text" "$1" "$SECONDS"
    fi
}

follow() {
    local line far
    while IFS= read -r line; do
        printf '%s\n' "$line" >&3
        far=
        case $line in
            '['*/*']'*) [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] &&
                far="${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}" ;;
            *' Test '*) [[ $line =~ ^\ *([0-9]+)/([0-9]+)\ Test\  ]] &&
                far="${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}" ;;
            dlstatus:*) [[ $line =~ ^dlstatus:[^:]*:([0-9]+) ]] &&
                far="${BASH_REMATCH[1]} % downloaded" ;;
            pmstatus:*) [[ $line =~ ^pmstatus:[^:]*:([0-9]+) ]] &&
                far="${BASH_REMATCH[1]} % installed" ;;
        esac
        if [[ $far ]] && ((SECONDS - last >= every)); then
            last=$SECONDS
            tell "$far"
        fi
    done
} 3>"$log"

[[ $on_terminal ]] && printf '%s' "$text"
"$@" </dev/null 2>&1 | follow
status=${PIPESTATUS[0]}
[[ $on_terminal ]] && printf '\r\033[K'
if ((status != 0)); then
    [[ $kept ]] || cat "$log"
    printf '%s: failed after %d s: %s\n' "$text" "$SECONDS" "$*"
else
    printf '%s: done in %d s\n' "$text" "$SECONDS"
fi
exit "$status"
