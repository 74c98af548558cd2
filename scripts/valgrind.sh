#!/usr/bin/env bash
# Runs every unit test case (ctest label unit) of the plain build under
# valgrind memcheck, each case in its own process as ctest runs it. Any
# memcheck error or leak fails the case; the failing cases are listed at the
# end and their logs kept in build/valgrind/.
#   bash scripts/valgrind.sh [ctest -R pattern]
# scripts/valgrind.supp holds the suppressions, each with its reason.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 2; }
builddir=$(bash scripts/build.sh | tail -n 1)
logs=$builddir/valgrind
rm -rf "$logs" && mkdir -p "$logs" "$builddir/test-data/share"
export XDG_DATA_HOME="$PWD/$builddir/test-data/share"
filter=()
[ $# -gt 0 ] && filter=(-R "$1")
# Cases that start themselves again through /proc/self/exe, which under
# valgrind is valgrind's own launcher; the child cases they run are disabled
# for ctest and so skipped here too.
skip=${KVT_VALGRIND_SKIP:-'^(Lifecycle|Startup|MainWriterFileTest)\.'}
# One line per case: name, working directory, then the command.
ctest --test-dir "$builddir" -L unit "${filter[@]}" --show-only=json-v1 | SKIP=$skip python3 -c '
import json, os, re, sys
for t in json.load(sys.stdin)["tests"]:
    props = {p["name"]: p["value"] for p in t.get("properties", [])}
    if props.get("DISABLED") or re.search(os.environ["SKIP"], t["name"]):
        continue
    print("\t".join([t["name"], props.get("WORKING_DIRECTORY", ".")] + t["command"]))
' > "$logs/cases.tsv"
# Mismatched new/free reports are off: test programs that replace operator
# delete (to fail allocations on request) pair valgrind's new with their free;
# the ASan flavour checks allocation/deallocation pairs instead.
run_case() {
    IFS=$'\t' read -r -a f <<<"$1"
    local name=${f[0]} wd=${f[1]} log=$2/${f[0]//\//_}.log
    if (cd "$wd" && valgrind --error-exitcode=99 --leak-check=full --show-mismatched-frees=no \
            --suppressions="$3" --log-file="$log" "${f[@]:2}" >"$log.out" 2>&1); then
        rm -f "$log" "$log.out"
    else
        echo "FAILED $name (rc $?: 99 memcheck, else the test; $log, $log.out)"
    fi
}
export -f run_case
start=$(date +%s)
tr '\n' '\0' <"$logs/cases.tsv" |
    xargs -0 -P"$(nproc)" -I{} bash -c 'run_case "$1" "$2" "$3"' _ {} "$PWD/$logs" \
        "$PWD/scripts/valgrind.supp" | tee "$logs/failed.txt"
total=$(wc -l <"$logs/cases.tsv")
failed=$(wc -l <"$logs/failed.txt")
echo "valgrind: $total case(s), $failed failed, $(($(date +%s) - start)) s"
[ "$failed" -eq 0 ]
