#!/bin/bash
# Checks the MIB module as a manager loads it: the linter's verdict, every object's OID, access and
# type, and that the stock tools load it without a word.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
mibs=$(cd "$here/../../mibs" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/cert_indexes" # the tools say a word when they make it themselves

# Neither the user's nor the machine's configuration counts, and nothing is written outside the work
# folder.
export SMIPATH="$mibs:$mibs/base" SNMPCONFPATH="$work" SNMP_PERSISTENT_DIR="$work"
failed=0

# same WHAT EXPECTED ACTUAL: complains, and prints the difference, if the two files differ.
same() {
    if ! diff -u --label "expected" --label "actual" "$2" "$3"; then
        echo "FAILED: $1" >&2
        failed=1
    fi
}

translate() {
    snmptranslate -M "$mibs:$mibs/base" -m CONFIG-COPY-MIB "$@"
}

# Our own module at the strictest level; the reduced standard modules at the level that reports what
# the tools fail on. The line numbers say nothing about the module, so they are removed.
lint() {
    smilint -c /dev/null -l "$1" -m "$2" 2>&1 | sed 's/^[^{]*{/{/'
}
lint 6 "$mibs/CONFIG-COPY-MIB.txt" > "$work/lint"
for module in "$mibs"/base/*.txt; do
    lint 3 "$module" >> "$work/lint"
done
same "smilint" "$here/allowed_lint.txt" "$work/lint"

grep -v '^#' "$here/objects.txt" > "$work/objects"
while read -r name number _; do
    echo "$name $number" >> "$work/numbers.expected"
    echo "$name $(translate -On "CONFIG-COPY-MIB::$name" 2>> "$work/stderr")" >> "$work/numbers"
    echo "$number CONFIG-COPY-MIB::$name" >> "$work/names.expected"
    echo "$number $(translate -OS "$number" 2>> "$work/stderr")" >> "$work/names"
done < "$work/objects"
same "snmptranslate: name to OID" "$work/numbers.expected" "$work/numbers"
same "snmptranslate: OID to name" "$work/names.expected" "$work/names"

# Of the tree, the lines of objects with a value: "+-- CR-- EnumVal   ccCopyProtocol(2)".
awk '$3 != "-" { print $3, $4, $1 }' "$work/objects" > "$work/tree.expected"
translate -Tp CONFIG-COPY-MIB::configCopyMIB 2>> "$work/stderr" |
    sed -nE 's/^[ |]*\+-- ([-CRWN]{4}) ([A-Za-z0-9]+) +([A-Za-z0-9]+)\([0-9]+\)$/\1 \2 \3/p' > "$work/tree"
same "snmptranslate -Tp: access and type" "$work/tree.expected" "$work/tree"

: > "$work/nothing"
same "standard error of snmptranslate" "$work/nothing" "$work/stderr"

if [ "$failed" -eq 0 ]; then
    echo "CONFIG-COPY-MIB: $(wc -l < "$work/objects") nodes as expected"
fi
exit "$failed"
