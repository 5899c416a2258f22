#!/usr/bin/env bash
# Format, include rule, public headers alone, their reference, the second compiler, clang-tidy. Cheap ones first.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "-- format"
tools/sources.sh | xargs clang-format --dry-run -Werror

echo "-- includes"
tools/check_includes.sh

echo "-- public headers alone, as C++17"
json=$(pkg-config --cflags jsoncpp)
find include -name '*.h' | xargs -P "$(nproc)" -I{} sh -c \
    "for compiler in g++ clang++; do
         \$compiler -std=c++17 -fsyntax-only -x c++ -Wall -Wextra -Wpedantic -Werror \
             -Iinclude $json -include {} /dev/null || exit 255
     done"

echo "-- reference"
./run docs >/dev/null

echo "-- clang build"
./run build clang orbel_static | tail -n 1

echo "-- clang-tidy"
git ls-files -- '*.cpp' | grep -vE '^(tests|bench|examples|tools|fuzz)/' |
    xargs -P "$(nproc)" -n 4 clang-tidy -quiet -p build/clang 2>/dev/null | tee build/clang/tidy.log
! grep -qE 'error:|warning:' build/clang/tidy.log
echo "lint passed"
