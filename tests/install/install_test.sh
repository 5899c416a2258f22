#!/usr/bin/env bash
# usage: install_test.sh BUILD_DIR
# Installs into an empty prefix and builds from outside the tree against it, once through the CMake
# package (this consumer and every example) and once through pkg-config, and runs the consumer.
set -euo pipefail
shopt -s nullglob
build=$1
source=$(cd "$(dirname "$0")/../.." && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/prefix" >/dev/null

consumer=$source/tests/install/consumer
sources=$(printf '%s;' "$consumer/consumer.cpp" "$source"/examples/*.cpp)
cmake -S "$consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" \
    -DCMAKE_CXX_STANDARD=20 -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DSOURCES="${sources%;}" >/dev/null
cmake --build "$scratch/build" -j2
"$scratch/build/consumer"
"$scratch/build/two_modules"

export PKG_CONFIG_PATH=$scratch/prefix/lib/pkgconfig
for compiler in g++ clang++; do
    for standard in c++17 c++20; do
        "$compiler" -std=$standard "$consumer/consumer.cpp" -o "$scratch/consumer" \
            $(pkg-config --cflags --libs orbel) -Wl,-rpath,"$(pkg-config --variable=libdir orbel)"
        "$scratch/consumer"
    done
done

soname=$(objdump -p "$scratch"/prefix/lib/liborbel.so | awk '$1 == "SONAME" { print $2 }')
[ "$soname" = liborbel.so.1 ] || { echo "SONAME is $soname"; exit 1; }
