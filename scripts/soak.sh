#!/usr/bin/env bash
# Runs the stress and fault programs over and over for a while, at a larger
# size, in one flavour:
#   scripts/soak.sh [minutes, default 30]
# KVT_STRESS_SCALE (default 10 here) and KVT_SANITIZE as for scripts/test.sh.
# Stops at the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-30}
export KVT_STRESS_SCALE=${KVT_STRESS_SCALE:-10}
deadline=$(($(date +%s) + minutes * 60))
pass=0
while [ "$(date +%s)" -lt "$deadline" ]; do
  pass=$((pass + 1))
  echo "=== soak pass $pass (KVT_STRESS_SCALE=$KVT_STRESS_SCALE)"
  bash scripts/test.sh -L 'stress|fault'
done
echo "soak: $pass passes in $minutes minutes"
