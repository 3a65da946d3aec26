#!/bin/bash
# Switches and their file server on this machine, in namespaces of their own: see `scripts/lab.sh
# help`.
set -euo pipefail

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if [[ ${1:-help} != help ]]; then
    groups=(lab)
    install=yes
    for option in "$@"; do
        case $option in
        --) break ;;
        --frr) groups+=(frr) ;;
        --no-build) install= ;;
        esac
    done
    [[ -z $install ]] || "$scripts/install-packages.sh" "${groups[@]}" >&2
fi
exec /usr/bin/python3 -B "$(dirname "$scripts")/lab/lab.py" "$@"
