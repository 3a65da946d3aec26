#!/bin/bash
# Attacks the whole system for some time and checks what must hold whatever happens: no row stays
# running, no outcome is wrong, nothing is left over, no password shows, no process crashes.
#
#   scripts/campaign.sh [OPTION…] MINUTES [CAMPAIGN…]
#
# The campaigns, each in a lab of its own (default: all, which share the minutes):
#   requests  hostile SNMP requests to an agent with sanitizers
#   copies    copies in a row by every protocol
#   faults    something is killed, stopped, full, read-only or cut off during a copy or save
#   fabric    a switch's agent or system manager is killed during a save in the fabric
#   servers   file servers that lie, babble, drip or say nothing
#   users     hostile users of the switch's own machine
#   agents    config-copy against agents that lie
#
#   --seed N       what the campaigns' chance is made of (default: the time)
#   --count N      so many rounds of each campaign instead of MINUTES
#   --first N      begin with this round; a failure says which one to repeat
#   --results DIR  for outputs and logs of all daemons (default: build/campaign)
#
# Prints a line of figures for each campaign. Ends with 0 if nothing was broken; otherwise it says
# how to repeat the round, and what was logged is in the results.
set -euo pipefail
umask 022

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repository=$(dirname "$scripts")
results=$repository/build/campaign
seed=$(date +%s) minutes='' rounds=() campaigns=()

usage() {
    sed -n '2,/^set/{/^set/d;s/^# \{0,1\}//;p}' "${BASH_SOURCE[0]}" >&2
    exit 2
}

while (($#)); do
    case $1 in
        --seed) seed=${2-}; shift ;;
        --count | --first) rounds+=("$1" "${2-}"); shift ;;
        --results) results=$(realpath -m "${2-}"); shift ;;
        -*) usage ;;
        *[!0-9.]*) campaigns+=("$1") ;;
        *) minutes=$1 ;;
    esac
    shift || usage
done
[[ $minutes || " ${rounds[*]} " == *" --count "* ]] || usage

# The lab of each.
declare -A labs=(
    [requests]="--build-dir build/asan"
    [copies]=""
    [faults]="--small-disk 24m --server-disk 24m"
    [fabric]="--switches 3"
    [servers]="--small-disk 200m"
    [users]=""
    [agents]="--build-dir build/asan"
)
((${#campaigns[@]})) || campaigns=(requests copies faults fabric servers users agents)
for campaign in "${campaigns[@]}"; do
    [[ -v labs[$campaign] ]] || usage
done
seconds=$(awk -v minutes="${minutes:-0}" -v share="${#campaigns[@]}" \
    'BEGIN { print 60 * minutes / share }')

cd "$repository"
status=0
for campaign in "${campaigns[@]}"; do
    kept=$results/$campaign
    mkdir -p "$kept"
    read -r -a options <<<"${labs[$campaign]}"
    "$scripts/lab.sh" exec "${options[@]}" --keep-logs "$kept/logs" -- /usr/bin/python3 -B \
        "tests/campaign/$campaign.py" --seed "$seed" --seconds "$seconds" \
        "${rounds[@]}" >"$kept/output" 2>&1 || {
        status=1
        cat "$kept/output"
        printf '%s: failed; its logs are in %s\n' "$campaign" "$kept"
        continue
    }
    tail -n 1 "$kept/output"
done
exit "$status"
