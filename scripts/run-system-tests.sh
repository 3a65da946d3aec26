#!/bin/bash
# Runs the system tests: each folder of tests/system in a lab with the options of its file
# `options`, tests/packages, which installs the packages in a Debian of its own, and tests/lab, which
# tests the lab itself, on this machine; four folders at a time. The last line is "N passed, N
# failed".
#
#   scripts/run-system-tests.sh [--results DIR] [FOLDER… [-- PYTEST ARGUMENTS…]]
#
# Without FOLDER it runs all of them. With --results, a JUnit report for each folder and the
# daemons' logs go to DIR.
set -euo pipefail
umask 022 # the caller must be able to read what the tests leave as root

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tests=$(dirname "$scripts")/tests
results=$(dirname "$scripts")/build/system-tests
folders=()
while [[ $# -gt 0 ]]; do
    case $1 in
        --results) results=$(realpath -m "$2"); shift 2 ;;
        --) shift; break ;;
        *) folders+=("$(basename "$1")"); shift ;;
    esac
done
if [[ ${#folders[@]} -eq 0 ]]; then
    # the longest ones first, so that none is left to run alone
    folders=(default config_copy packages vrf transfer_scripts protocols frr ansible lab way_back)
    for options in "$tests"/system/*/options; do
        folder=$(basename "$(dirname "$options")")
        [[ " ${folders[*]} " == *" $folder "* ]] || folders+=("$folder")
    done
fi

as_root=()
[[ $EUID -eq 0 ]] || as_root=(sudo)
"$scripts/install-packages.sh"
"${as_root[@]}" rm -rf "$results" # a lab's logs belong to root
mkdir -p "$results"
"$scripts/lab.sh" exec -- true # brings the build up to date
if [[ " ${folders[*]} " == *" frr "* ]]; then # unit tests that run in its lab
    top=$(dirname "$scripts")
    { cmake "$top/build/release" -DCCM_UNIT_TESTS=ON &&
        cmake --build "$top/build/release" --target host_tests; } >"$results/host_tests.log" 2>&1 ||
        { cat "$results/host_tests.log"; exit 1; }
fi
if [[ " ${folders[*]} " == *" fleet "* ]]; then # simulated agents
    top=$(dirname "$scripts")
    { cmake "$top/build/release" -DCCM_BENCH=ON &&
        cmake --build "$top/build/release" --target bench_fleet_agent; } \
        >"$results/fleet_agent.log" 2>&1 ||
        { cat "$results/fleet_agent.log"; exit 1; }
fi
status=0
pytest=(env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -p no:cacheprovider -q
    --durations=5 --strict-markers)

# The packages are made meanwhile: the labs mostly wait.
packaging=
if [[ " ${folders[*]} " == *" packages "* ]]; then
    { nice "$scripts/package.sh" && touch "$results/package.made"; } \
        >"$results/package.log" 2>&1 &
    packaging=$!
fi

# Runs the tests of one folder, with their output in a file of the results.
run_folder() {
    local folder=$1 options
    shift
    if [[ $folder == packages || $folder == lab ]]; then
        echo "== the ${folder/lab/lab itself}"
        # The lab's tests copy the sources, to which packaging adds files for a while.
        [[ -z $packaging ]] || tail --pid="$packaging" -f /dev/null
        if [[ $folder == packages && ! -e $results/package.made ]]; then
            cat "$results/package.log"
            return 1
        fi
        "${as_root[@]}" "${pytest[@]}" "--junitxml=$results/$folder.xml" "$tests/$folder" "$@"
        return
    fi
    read -r -a options <<<"$(<"$tests/system/$folder/options")"
    echo "== $folder ${options[*]}"
    "$scripts/lab.sh" exec --no-build "${options[@]}" --keep-logs "$results/$folder" -- \
        "${pytest[@]}" "--junitxml=$results/$folder.xml" "$tests/system/$folder" "$@"
} >"$results/$1.log" 2>&1

# Labs do not affect each other, and their tests mostly wait. A folder's output is shown when it has
# ended.
readonly AT_A_TIME=4
declare -A running=()
shown=0
show_next() {
    local ended
    wait -n -p ended "${!running[@]}" || status=1
    cat "$results/${running[$ended]}.log"
    unset "running[$ended]"
    echo "-- $((++shown)) of ${#folders[@]} folders, $SECONDS s"
}
for folder in "${folders[@]}"; do
    ((${#running[@]} < AT_A_TIME)) || show_next
    run_folder "$folder" "$@" &
    running[$!]=$folder
done
while ((${#running[@]})); do
    show_next
done
reports=("${folders[@]/#/$results/}")
/usr/bin/python3 "$scripts/count-tests.py" "${reports[@]/%/.xml}" || status=1
exit "$status"
