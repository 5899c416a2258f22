#!/usr/bin/env bash
# usage: guide_example.sh PAGE SOURCE
# Writes the first complete program (a cpp block with a main function) of a page to SOURCE, with the
# page's own line numbers, so that a compiler's message points into the page.
set -euo pipefail
awk -v page="$1" '
    /^```cpp$/ { inside = 1; start = FNR + 1; text = ""; next }
    /^```$/ && inside {
        if (text ~ /int main\(/) { printf "#line %d \"%s\"\n%s", start, page, text; found = 1; exit }
        inside = 0
    }
    inside { text = text $0 "\n" }
    END { exit !found }' "$1" >"$2" || { echo "$1 has no complete program"; exit 1; }
