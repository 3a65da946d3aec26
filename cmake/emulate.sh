#!/bin/sh
# emulate.sh EMULATOR SYSROOT PROGRAM ARGUMENT…: runs a program of another machine. GoogleTest
# starts a program again, by its argv[0], for a test in a process of its own: so that is this
# script, which finds the rest in its environment.
if [ -z "$EMULATED_PROGRAM" ]; then
    export EMULATOR="$1" EMULATED_SYSROOT="$2" EMULATED_PROGRAM="$3"
    shift 3
fi
exec "$EMULATOR" -L "$EMULATED_SYSROOT" -0 "$0" "$EMULATED_PROGRAM" "$@"
