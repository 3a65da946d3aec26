#!/usr/bin/env bash
# Builds everything and runs all tests: formatting, shellcheck and flake8, warnings of two
# compilers, clang-tidy, unit tests under sanitizers and in the release build, the MIB module, the
# documentation against the sources, fuzzers for a few seconds each, the system tests in the lab,
# and a minute of the campaign. Installs what it needs and shows its progress. Ends with "N passed,
# N failed".
#
# usage: scripts/test.sh [STEP…]
# steps: format build tidy unit fuzz system campaign (default: all of these)
#        i386 arm64 s390x (build for that machine, and run the unit tests that can run here)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly FUZZ_SECONDS=10
passed=0
failed=0
tidy= # its process, while it runs
began=$SECONDS

section() { printf '\n=== %s (%d s)\n' "$*" "$((SECONDS - began))"; }

# Runs a command with its output in a log, which is shown only when the command fails.
quietly() {
    local log
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1; then
        cat "$log"
        rm -f "$log"
        printf 'failed: %s\n' "$*" >&2
        return 1
    fi
    rm -f "$log"
}

own_sources() { git ls-files '*.cpp' '*.h'; }

# Found by their first line, as most have no suffix. In files that a shell only sources, that line
# names the shell to the linter.
shell_sources() { git grep -lIE '^(#!.*[/ ](ba)?sh|# shellcheck shell=.*)$'; }
python_sources() { { git ls-files '*.py'; git grep -lIE '^#!/usr/bin/python3'; } | sort -u; }

# PRESET [CMAKE ARGUMENT…]
build() {
    local preset=$1
    shift
    quietly cmake --preset "$preset" "$@"
    scripts/progress.sh "build/$preset" cmake --build --preset "$preset"
}

build_release() { build release -DCCM_UNIT_TESTS=ON -DCCM_BENCH=ON; }

step_format() {
    section "clang-format, shellcheck, flake8"
    own_sources | xargs clang-format --dry-run --Werror
    shell_sources | xargs shellcheck
    python_sources | xargs flake8
}

step_build() {
    section "build: clang++ with sanitizers, g++ release"
    build asan
    build_release
}

# The arguments of each run of clang-tidy, one run per line. The analyzer looks only at the file that
# it is given. All other checks take several sources at once, as the release build does: most of
# their time goes into the headers of libraries.
tidy_runs() {
    local analyzer='-bugprone-*,-cert-*,-concurrency-*,-misc-*,-modernize-*,-performance-*'
    # these two look only at the main file as well
    analyzer+=',-portability-*,-readability-*,misc-unused-using-decls,misc-unused-alias-decls'
    local others='-clang-analyzer-*,-bugprone-suspicious-include'
    others+=',-misc-unused-using-decls,-misc-unused-alias-decls'
    local folders='base|config-copy|copy_client|infra|platform|receiver|tftp'
    local joined
    joined=$(sed -nE "s,^ *\"file\": \".*/(build/release/($folders)/.*/unity_[^/]*)\"$,\\1,p" \
        build/release/compile_commands.json | grep .) || return 1 # none
    sed <<<"$joined" -E "s/^/-p build\/release --checks=$others /
            /infra/s/--checks=/&-readability-identifier-naming,/" # see infra/.clang-tidy
    own_sources | grep -E "^($folders)/.*\.cpp$" | paste -d ' ' - - - - |
        sed "s/^/-p build\/clang-tidy --checks=$analyzer /"
}

# In the background at idle priority: the other steps mostly wait.
step_tidy() {
    section "clang-tidy, in the background of the next steps"
    local runs
    # the only step that compiles each source by itself, and so finds a missing #include
    quietly cmake --preset asan -B build/clang-tidy -DCMAKE_UNITY_BUILD=OFF
    runs=$(tidy_runs)
    chrt --idle 0 xargs -P "$(nproc)" -L 1 clang-tidy --quiet <<<"$runs" >build/clang-tidy.log 2>&1 &
    tidy=$!
    trap 'kill "$tidy" 2>/dev/null' EXIT
}

end_of_tidy() {
    section "clang-tidy: the result"
    wait "$tidy" || { cat build/clang-tidy.log; exit 1; }
    trap - EXIT
}

# Adds the numbers in the last line of a report's count, "N passed, M failed", to the totals.
add_count() {
    [[ $1 =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]] ||
        { echo "no count of tests: $1" >&2; exit 1; }
    passed=$((passed + BASH_REMATCH[1]))
    failed=$((failed + BASH_REMATCH[2]))
}

# run_ctest PRESET: runs the tests of a build and counts them. It runs as root because some tests
# act as other users, mount disks or make namespaces. They wait more than they compute, hence twice
# as many in parallel as there are processors.
run_ctest() {
    local build=$PWD/build/$1 as_root=() counts status=0 failed_before=$failed
    ((EUID == 0)) || as_root=(sudo)
    "${as_root[@]}" rm -rf "$build/ctest.xml" "$build/unit-tests" "$build/coverage"
    mkdir -m 1777 "$build/coverage" # some tests act as other users
    scripts/progress.sh --log "$build/ctest.log" "tests of build/$1" "${as_root[@]}" \
        env UBSAN_OPTIONS=print_stacktrace=1 LLVM_PROFILE_FILE="$build/coverage/%m.profraw" \
        ctest --preset "$1" --parallel $((2 * $(nproc))) --output-junit "$build/ctest.xml" \
            --output-on-failure --no-tests=error ||
        { status=1; grep -v ' Passed \| Start ' "$build/ctest.log"; }
    counts=$(scripts/count-tests.py "$build/ctest.xml" "$build"/unit-tests/*.xml) || status=1
    printf '%s\n' "$counts"
    add_count "${counts##*$'\n'}"
    ((status == 0 || failed > failed_before)) || failed=$((failed + 1))
}

step_unit() {
    section "unit tests under sanitizers, and of the release; MIB module, documentation"
    run_ctest asan
    run_ctest release
}

# machine NAME: g++ for that machine, and its unit tests, emulated unless this machine runs them.
machine() {
    section "unit tests of $1"
    bash scripts/install-packages.sh "$1"
    build "$1"
    run_ctest "$1"
}
step_i386() { machine i386; }
step_arm64() { machine arm64; }
step_s390x() { machine s390x; }

step_fuzz() {
    section "fuzzers, $FUZZ_SECONDS s each, side by side"
    local fuzzer seeds
    local -A running=()
    for fuzzer in build/asan/bin/fuzz_*; do
        seeds=$(find "tests/fuzz/seeds/${fuzzer##*/fuzz_}" -type f -printf '%p,')
        quietly "$fuzzer" -max_total_time="$FUZZ_SECONDS" -seed_inputs="${seeds%,}" \
            -artifact_prefix=build/asan/ &
        running[${fuzzer##*/}]=$!
    done
    quietly tests/fuzz/fuzz_scp_target.py "$FUZZ_SECONDS" &
    running[fuzz_scp_target]=$!
    for fuzzer in "${!running[@]}"; do
        wait "${running[$fuzzer]}"
        printf '%s found nothing\n' "$fuzzer"
        passed=$((passed + 1))
    done
}

step_system() {
    section "system tests in the lab"
    local log=build/system-tests.log status=0 counts failed_before=$failed
    bash scripts/run-system-tests.sh 2>&1 | tee "$log" || status=$?
    counts=$(tail -n 1 "$log")
    add_count "$counts"
    ((status == 0 || failed > failed_before)) || failed=$((failed + 1))
}

step_campaign() {
    section "campaign: attacks and faults, each in a lab"
    local log=build/campaign.log failed_before=$failed status=0
    scripts/campaign.sh --seed 1 1 | tee "$log" || status=1
    grep -q ' violations$' "$log" || status=1 # a run without figures proves nothing
    add_count "$(awk '/ 0 violations$/ { good++ } /: failed; its logs/ { bad++ }
        END { printf "%d passed, %d failed\n", good, bad }' "$log")"
    ((status == 0 || failed > failed_before)) || failed=$((failed + 1))
}

section "packages"
bash scripts/install-packages.sh
steps=("$@")
((${#steps[@]})) || steps=(format build tidy unit fuzz system campaign)
for step in "${steps[@]}"; do
    "step_$step"
done
[[ -z $tidy ]] || end_of_tidy
if [[ " ${steps[*]} " == *" unit "* ]]; then
    section "lines that the unit tests run"
    scripts/coverage.py build/asan || failed=$((failed + 1))
fi
section "done"
printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
