#!/bin/bash
# Runs the system tests, each folder of tests/system in a lab made with the options that stand in its file `options`.
#
#   scripts/run-system-tests.sh [--results DIR] [FOLDER… [-- PYTEST ARGUMENTS…]]
#
# Without FOLDER all of them. With --results, a report in JUnit's form for each folder, and the daemons' logs, go to DIR.
set -euo pipefail

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tests=$(dirname "$scripts")/tests/system
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
    for options in "$tests"/*/options; do
        folders+=("$(basename "$(dirname "$options")")")
    done
fi

rm -rf "$results"
mkdir -p "$results"
build=(${LAB_NO_BUILD:+--no-build})
status=0
for folder in "${folders[@]}"; do
    read -r -a options <"$tests/$folder/options" || [[ ${#options[@]} -eq 0 ]]
    echo "== $folder ${options[*]}"
    if ! "$scripts/lab.sh" exec "${build[@]}" "${options[@]}" --keep-logs "$results/$folder" -- \
        env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -p no:cacheprovider -q --durations=5 --strict-markers \
        --junitxml="$results/$folder.xml" "$tests/$folder" "$@"; then
        status=1
    fi
    build=(--no-build)
done
exit "$status"
