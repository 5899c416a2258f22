#!/usr/bin/env bash
# usage: abi_check.sh OLD_LIBRARY NEW_LIBRARY
# Fails if a program linked with the old library may not run with the new one: a name is gone, a
# public type has changed. New names are fine. The two must be built with debug information.
set -euo pipefail
status=0
abidiff --no-added-syms "$1" "$2" || status=$?
# abidiff's status is a set of bits: 1 and 2 are errors of its own, 4 a change, 8 one that breaks.
if [ $((status & 11)) -ne 0 ]; then
    echo "programs linked with $(basename "$1") may break with $(basename "$2")"
    exit 1
fi
