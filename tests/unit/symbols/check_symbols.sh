#!/bin/sh
# check_symbols.sh NM LIBRARY LIST: the library's dynamic symbol table holds exactly the names of the
# list (sorted in the C locale), each defined.
set -eu
table=$("$1" -D --defined-only --format=posix "$2")
printf '%s\n' "$table" | cut -d ' ' -f 1 | LC_ALL=C sort | diff -u "$3" -
