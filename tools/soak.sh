#!/usr/bin/env bash
# Builds the seeded safety soak and runs RUNS random cases (default 10000)
# from SEED (default 1) on the simulated arm: random motion programs (CYCLE,
# blended or not, and STEP walks) and trajectory replays, each on a freshly
# booted arm in virtual time. Prints every violation with its seed, case and
# program, then the summary and the wall time; exits non-zero on a violation.
#
#   tools/soak.sh [RUNS] [SEED]
#
# TQL_SOAK_BUILD names the build directory (default build/soak), TQL_SOAK_JOBS
# the build's parallel jobs (default: the number of cores). A case is repeated
# alone with: BUILD/tests/tql_soak --seed SEED --case K
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-10000}
seed=${2:-1}
build=${TQL_SOAK_BUILD:-build/soak}

cmake -S . -B "$build" -DTQL_WERROR=ON >/dev/null
cmake --build "$build" -j"${TQL_SOAK_JOBS:-$(nproc 2>/dev/null || echo 2)}" --target tql_soak demo
start=$(date +%s.%N)
status=0
"$build/tests/tql_soak" --runs "$runs" --seed "$seed" || status=$?
awk -v a="$start" -v b="$(date +%s.%N)" -v r="$runs" -v s="$seed" \
  'BEGIN { printf "soak: %.1f s wall for %d runs (seed %s)\n", b - a, r, s }'
exit "$status"
