#!/usr/bin/env bash
# Builds the side-by-side programs (bench/compare) in the plain build, runs
# each a few times and prints one Markdown table of medians: kvtframework,
# the OS baseline ("os", the machine's limit) and every peer library that is
# installed (scripts/deps.sh --compare installs them).
#   KVT_COMPARE_RUNS  runs per program (default 3)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${KVT_COMPARE_RUNS:-3}
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
echo
echo "Medians of $runs runs. Load before: ${load_before#*load average: }; after: $(uptime | sed 's/.*load average: //')."
echo
awk -f scripts/compare_table.awk "$results"
