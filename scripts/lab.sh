#!/bin/bash
# Switches and their file server on this machine, in namespaces of their own: see `scripts/lab.sh
# help`.
set -euo pipefail

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if [[ ${1:-help} != help ]]; then
    "$scripts/install-packages.sh" lab >&2
fi
exec /usr/bin/python3 -B "$(dirname "$scripts")/lab/lab.py" "$@"
