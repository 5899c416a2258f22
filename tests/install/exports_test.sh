#!/usr/bin/env bash
# usage: exports_test.sh LIBRARY [--update]
# Compares what the shared library exports with the list beside this script. Weak symbols (inline
# functions, templates) come and go with the optimiser and are left out, but for the type
# information and virtual tables of abstract classes.
set -euo pipefail
list=$(dirname "$0")/exports.txt
symbols() {
    nm -D --defined-only -C "$1" | cut -d' ' -f2- |
        grep -E '^[TDBRV] |^[VW] (vtable|typeinfo) for ' | cut -d' ' -f2- | LC_ALL=C sort -u
}
if [ "${2:-}" = --update ]; then
    symbols "$1" >"$list"
    exit
fi
diff "$list" <(symbols "$1") && exit
echo "The exported names differ from tests/install/exports.txt (< list, > library)."
echo "If that is meant: tests/install/exports_test.sh LIBRARY --update"
exit 1
