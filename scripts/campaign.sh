#!/bin/bash
# Attacks the whole system for some time and checks what must hold whatever happens: no row stays
# running, no outcome is wrong, nothing is left over, no password shows, no process crashes.
#
#   scripts/campaign.sh [OPTION…] MINUTES [CAMPAIGN…]
#
# The campaigns, each in a lab of its own, four at a time (default: all, which share the minutes):
#   requests  hostile SNMP requests to an agent with sanitizers
#   copies    copies in a row by every protocol
#   faults    something is killed, stopped, full, read-only or cut off during a copy or save
#   way_back  something is killed while a restore waits for its save, or is undone
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
readonly AT_A_TIME=4 # they mostly wait
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
    [way_back]=""
    [fabric]="--switches 3"
    [servers]="--small-disk 200m"
    [users]=""
    [agents]="--build-dir build/asan"
)
((${#campaigns[@]})) || campaigns=(requests copies faults way_back fabric servers users agents)
builds=()
for campaign in "${campaigns[@]}"; do
    [[ -v labs[$campaign] ]] || usage
    [[ ${labs[$campaign]} == *build/asan* ]] && builds+=(build/asan) || builds+=(build/release)
done
seconds=$(awk -v minutes="${minutes:-0}" -v share="${#campaigns[@]}" -v at_a_time="$AT_A_TIME" \
    'BEGIN { print 60 * minutes / share * (share < at_a_time ? share : at_a_time) }')

as_root=()
((EUID == 0)) || as_root=(sudo)
cd "$repository"
scripts/install-packages.sh lab tests >&2
readarray -t builds < <(printf '%s\n' "${builds[@]}" | sort -u)
for build in "${builds[@]}"; do
    scripts/lab.sh exec --build-dir "$build" -- true # brings it up to date
done

# Runs one campaign with its output in a file, of which it shows the figures, or all if it fails.
run() {
    local campaign=$1 kept=$results/$1 options
    "${as_root[@]}" rm -rf "$kept" # a lab's logs belong to root
    mkdir -p "$kept"
    read -r -a options <<<"${labs[$campaign]}"
    if scripts/lab.sh exec --no-build "${options[@]}" --keep-logs "$kept/logs" -- \
        /usr/bin/python3 -B "tests/campaign/$campaign.py" --seed "$seed" --seconds "$seconds" \
        "${rounds[@]}" >"$kept/output" 2>&1; then
        tail -n 1 "$kept/output"
    else
        cat "$kept/output"
        printf '%s: failed; its logs are in %s\n' "$campaign" "$kept"
        return 1
    fi
}

status=0 running=0
for campaign in "${campaigns[@]}"; do
    if ((running == AT_A_TIME)); then
        wait -n || status=1
        running=$((running - 1))
    fi
    run "$campaign" &
    running=$((running + 1))
done
while ((running)); do
    wait -n || status=1
    running=$((running - 1))
done
exit "$status"
