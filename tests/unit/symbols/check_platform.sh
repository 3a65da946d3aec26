#!/bin/sh
# check_platform.sh NM LIBRARY: the library's dynamic symbol table holds what the headers of platform/
# declare, what the module's link puts in the place of other functions, and no other.
set -eu
folder=$(dirname "$0")
list=$(mktemp)
trap 'rm -f "$list"' EXIT
{
    "$folder/declared.py"
    printf '__wrap_%s\n' fork register_mib unregister_mib
} | LC_ALL=C sort >"$list"
"$folder/check_symbols.sh" "$1" "$2" "$list"
