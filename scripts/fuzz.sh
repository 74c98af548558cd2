#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and fuzzes each for the
# given number of seconds (default 20), starting from its seed corpus.
#   bash scripts/fuzz.sh [seconds] [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
seconds=${1:-20}
shift || true
builddir=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$builddir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKVT_SANITIZE=address,undefined -DKVT_BUILD_FUZZ=ON -DKVT_BUILD_TESTS=OFF \
    -DKVT_BUILD_BENCH=OFF -DKVT_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$builddir" -j"$(nproc)" >/dev/null
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for f in fuzz/fuzz_*.cpp; do
        [ -e "$f" ] && targets+=("$(basename "$f" .cpp)")
    done
fi
for t in "${targets[@]}"; do
    name=${t#fuzz_}
    corpus=fuzz/corpus/$name
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus/." "$work/"
    echo "== $t: ${seconds}s"
    "$builddir/fuzz/$t" -max_total_time="$seconds" -print_final_stats=1 "$work" 2>&1 | tail -n 12
    rm -rf "$work"
done
echo "fuzzing done: ${#targets[@]} target(s)"
