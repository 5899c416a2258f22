#!/usr/bin/env bash
# usage: package_test.sh BUILD_DIR
# Makes the Debian packages, unpacks both into one root and builds and runs the consumer from there.
set -euo pipefail
build=$1
consumer=$(cd "$(dirname "$0")" && pwd)/consumer
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cpack --config "$build/CPackConfig.cmake" -B "$scratch/packages" >"$scratch/cpack.log" 2>&1 ||
    { cat "$scratch/cpack.log"; exit 1; }
for package in "$scratch"/packages/*.deb; do
    dpkg-deb -x "$package" "$scratch/root"
done

depends() { dpkg-deb -f "$scratch"/packages/"$1"_*.deb Depends; }
[[ "$(depends liborbel1)" == *libjsoncpp* ]] || { echo "liborbel1 needs: $(depends liborbel1)"; exit 1; }
[[ "$(depends liborbel-dev)" == "liborbel1 (= "* ]] || { echo "-dev needs: $(depends liborbel-dev)"; exit 1; }
# The library's package holds the library only, and no header or link for the linker.
extra=$(dpkg-deb -c "$scratch"/packages/liborbel1_*.deb | awk '{ print $6 }' |
    grep -vE '/$|liborbel[.]so[.]1([.0-9]*)$' || true)
[ -z "$extra" ] || { echo "liborbel1 also holds: $extra"; exit 1; }

export PKG_CONFIG_PATH=$(dirname "$(find "$scratch/root" -name orbel.pc)")
g++ -std=c++17 "$consumer/consumer.cpp" -o "$scratch/consumer" $(pkg-config --cflags --libs orbel)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir orbel) "$scratch/consumer"
