#!/bin/bash
# Checks the manual pages: mandoc's lint reports nothing, each page bears its file's name and
# section, refers only to pages that exist here or are in the list of other packages' pages, and
# fits into a terminal of 80 columns. Needs mandoc.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
cd "$here/../../docs/man"

# Pages of Debian's packages, which need not be installed where this runs: mandoc's reports about
# them, and about its index of them, are ignored.
foreign=$(grep -v '^#' "$here/foreign_pages.txt")
failed=0
complain() { printf 'FAILED: %s\n' "$*" >&2; failed=1; }

shopt -s nullglob
pages=(*.[1-9])
((${#pages[@]})) || complain "there are no manual pages"
for page in "${pages[@]}"; do
    status=0
    said=$(mandoc -T lint "$page" 2>&1) || status=$?
    # below 5 it is the level of the reports, mandoc(1)
    ((status < 5)) || complain "$page: mandoc itself failed with status $status"
    lint=$(sed '/: STYLE: referenced manual not found: /d; /^mandoc: outdated mandoc\.db /d' \
        <<<"$said")
    [[ -z $lint ]] || complain "$lint"
    title=$(sed -n 's/^\.Dt //p' "$page")
    [[ $title == "$(tr '[:lower:]' '[:upper:]' <<<"${page%.*}") ${page##*.}" ]] ||
        complain "$page: the title is '$title'"
    while read -r name section; do
        [[ -f $name.$section ]] || grep -qxF "$name $section" <<<"$foreign" ||
            complain "$page refers to $name($section)"
    done < <(sed -n '/^\./p' "$page" | grep -oP '\bXr \K\S+ [1-9]')
    while read -r line; do
        complain "$page is wider than 80 columns: $line"
    done < <(mandoc -T utf8 -O width=80 "$page" | LC_ALL=C.UTF-8 sed -n $'s/.\b//g; /^.\\{81\\}/p')
done
if ((failed == 0)); then
    printf '%d manual pages as expected\n' "${#pages[@]}"
fi
exit "$failed"
