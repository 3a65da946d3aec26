#!/bin/sh
# check_platform.sh NM LIBRARY: the library's dynamic symbol table holds exactly what the headers of
# platform/ declare and the functions with which the module's link replaces others.
set -eu
folder=$(dirname "$0")
list=$(mktemp)
trap 'rm -f "$list"' EXIT
{
    "$folder/declared.py"
    printf '__wrap_%s\n' fork register_mib unregister_mib
} | LC_ALL=C sort >"$list"
"$folder/check_symbols.sh" "$1" "$2" "$list"
