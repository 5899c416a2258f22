#!/usr/bin/env bash
# usage: abi_test.sh LIBRARY
# The check of a release passes the library beside itself, and refuses one without a function.
set -euo pipefail
check=$(cd "$(dirname "$0")/../../tools" && pwd)/abi_check.sh
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$check" "$1" "$1"

build() { g++ -shared -fPIC -g -x c++ - -Wl,-soname,libpart.so.1 -o "$scratch/$1"; }
build old.so <<<'int kept() { return 1; } int dropped() { return 2; }'
build new.so <<<'int kept() { return 1; } int added() { return 2; }'
if "$check" "$scratch/old.so" "$scratch/new.so" >"$scratch/log"; then
    echo "a function is gone and the check passed"
    exit 1
fi
grep -q dropped "$scratch/log"
