#!/usr/bin/env bash
# Builds the side-by-side programs (bench/compare) in the plain build, runs
# each a few times and prints one Markdown table of medians: kvtframework,
# the OS baseline ("os", the machine's limit) and every peer library that is
# installed (scripts/deps.sh --compare installs them). The table is also kept
# in build/compare-table.md.
#   --chart           also writes docs/performance.dat from the table and, when
#                     gnuplot is installed, redraws docs/performance.svg
#   KVT_COMPARE_RUNS  runs per program (default 3)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${KVT_COMPARE_RUNS:-3}
chart=0
[ "${1:-}" = "--chart" ] && chart=1
libs=(kvt os libuv asio libevent ace)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo | grep '^-- compare:' || true
cmake --build build -j"$(nproc)" --target compare >&2

results=$(mktemp)
trap 'rm -f "$results"' EXIT
for lib in "${libs[@]}"; do
    [ -x "build/bench/compare/compare_$lib" ] || echo "skipped: $lib (not installed)"
done
load_before=$(uptime)
for ((run = 1; run <= runs; run++)); do
    for lib in "${libs[@]}"; do
        prog="build/bench/compare/compare_$lib"
        [ -x "$prog" ] || continue
        echo "run $run/$runs: $lib" >&2
        "$prog" >>"$results"
    done
done
{
    echo
    echo "Medians of $runs runs. Load before: ${load_before#*load average: }; after: $(uptime | sed 's/.*load average: //')."
    echo
    awk -f scripts/compare_table.awk "$results"
} | tee build/compare-table.md
if [ "$chart" = 1 ]; then
    awk -f scripts/compare_chart.awk build/compare-table.md >docs/performance.dat
    if command -v gnuplot >/dev/null; then
        (cd docs && gnuplot performance.gp)
        echo "chart: docs/performance.svg"
    else
        echo "chart: gnuplot not installed (apt-get install gnuplot-nox); docs/performance.dat written"
    fi
fi
