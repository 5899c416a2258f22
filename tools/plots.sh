#!/usr/bin/env bash
# Draws docs/plots/*.svg from the figures that ./run bench left in build/bench.
set -euo pipefail
cd "$(dirname "$0")/.."
data=build/bench
mkdir -p docs/plots
[ -f "$data/ipc.json" ] && [ -f "$data/AllocatorBench.json" ] ||
    { echo "first: ./run bench ipc; ./run bench AllocatorBench" && exit 1; }

# plot NAME XLABEL YLABEL COMMANDS: the columns of $data/NAME.dat over its first one
plot() {
    gnuplot <<PLOT
set terminal svg size 720,420 font "sans,12" background "white"
set output "docs/plots/$1.svg"
set datafile separator tab
set key outside bottom center horizontal
set grid ytics lc rgb "#dddddd"
set xlabel "$2"
set ylabel "$3"
$4
plot for [i=2:$(head -n 1 "$data/$1.dat" | awk -F '\t' '{ print NF }')] "$data/$1.dat" \
    using 1:i with linespoints lw 2 pt 7 ps 0.6 title columnheader(i)
PLOT
    echo "docs/plots/$1.svg"
}

# Latency over payload size, a core each; writer and reader touch the first and the last word.
jq -r '
    def bytes: capture("(?<n>[0-9]+) (?<u>B|KiB|MiB)") |
        (.n | tonumber) * {"B": 1, "KiB": 1024, "MiB": 1048576}[.u];
    (["bytes", "sync", "default", "copying socket"] | @tsv),
    (.latency_us["one core each"] | to_entries | map(select(.key | endswith(" touched"))) |
        map([(.key | bytes), .value.sync.p50, .value.default.p50, .value.copy.p50]) |
        sort[] | @tsv)' "$data/ipc.json" >"$data/latency.dat"
plot latency "payload, bytes" "one way, p50, microseconds" \
    'set logscale x 2; set logscale y; set format x "%.0b%B"; set xrange [48:16777216]'

# Samples delivered over the number of readers.
jq -r '(["readers", "delivered"] | @tsv),
    (.fan_out.delivered | to_entries | map([(.key | tonumber), .value]) | sort[] | @tsv)' \
    "$data/ipc.json" >"$data/readers.dat"
plot readers "reader processes" "samples delivered a second, all readers" \
    'set xrange [0:9]; set yrange [0:*]'

# A live set of blocks of 16 to 1024 bytes, from 1 to 8 threads.
jq -r '
    [.benchmarks[] | select(.name | test("^liveSet/[^/]+/1024/.*threads:[0-9]+_median$")) |
        {heap: (.name | split("/")[1]), threads: .threads, rate: (1000 / .real_time)}] |
    (map(.heap) | unique) as $heaps |
    (["threads"] + $heaps | @tsv),
    (group_by(.threads)[] | . as $row |
        [$row[0].threads] + [$heaps[] as $heap | $row[] | select(.heap == $heap) | .rate] | @tsv)' \
    "$data/AllocatorBench.json" >"$data/allocator.dat"
plot allocator "threads" "millions of operations a second" \
    'set logscale x 2; set xrange [0.9:9]; set yrange [0:*]'
