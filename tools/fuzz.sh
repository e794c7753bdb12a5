#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, address and undefined-behaviour
# sanitizers) in build/fuzz and runs each for SECONDS (default 20) on a scratch
# copy of its seed corpus fuzz/corpus/<target>. Prints per target the
# executions and whether a crash was found; exits non-zero if any was.
#
#   tools/fuzz.sh [SECONDS] [TARGET ...]
#
# Installs what is missing (Debian packages, via apt-get, as root or with sudo).
# TQL_FUZZ_JOBS sets the build's parallel jobs and how many targets run at
# once (default: the number of cores).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_program fuzz_list fuzz_database fuzz_trajectory fuzz_run)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
install_missing() {
  local missing=()
  for p in "$@"; do installed "$p" || missing+=("$p"); done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq || echo "apt-get update was incomplete; installing from the lists it got"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
}
install_missing build-essential cmake pkg-config clang libsqlite3-dev liborocos-kdl-dev libeigen3-dev liburdfdom-dev
# libFuzzer's runtime ships with clang's runtime libraries of the same version.
clang_major=$(clang --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -n1)
install_missing "libclang-rt-${clang_major}-dev"

build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DTQL_FUZZ=ON -DTQL_BUILD_TESTS=OFF -DTQL_WERROR=ON >/dev/null
jobs=${TQL_FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}
cmake --build "$build" -j"$jobs" --target tql_fuzz

dictionary() {
  case $1 in
    fuzz_program | fuzz_run) echo "-dict=$PWD/fuzz/dict/program.dict" ;;
    fuzz_list | fuzz_database) echo "-dict=$PWD/fuzz/dict/database.dict" ;;
  esac
}

# One target: its corpus copied, run for the time given, its outcome into
# $build/logs/$t.status ("ok RUNS" or "crash STATUS RUNS ARTIFACT").
run_target() {
  local t=$1 corpus="$build/corpus/$1" artifacts="$build/artifacts/$1" log="$build/logs/$1.log" status=0
  rm -rf "$corpus" "$artifacts"
  mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
  cp fuzz/corpus/"$t"/* "$corpus"/
  # -close_fd_mask=2: the library's messages on standard error are dropped;
  # libFuzzer's and the sanitizers' reports still reach the log.
  "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 -close_fd_mask=2 \
    -artifact_prefix="$PWD/$artifacts/" $(dictionary "$t") "$PWD/$corpus" >"$log" 2>&1 || status=$?
  local runs found
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
  found=$(find "$artifacts" -type f | head -n1)
  if [ "$status" -ne 0 ] || [ -n "$found" ]; then
    echo "crash $status ${runs:-?} ${found:-}" >"$build/logs/$t.status"
  else
    echo "ok ${runs:-?}" >"$build/logs/$t.status"
  fi
}

# As many targets at once as there are build jobs (each fuzzer is one process).
for t in "${targets[@]}"; do
  echo "== $t: ${seconds} s"
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  run_target "$t" &
done
wait

failed=0
summary=()
for t in "${targets[@]}"; do
  read -r outcome a b c <"$build/logs/$t.status"
  if [ "$outcome" = ok ]; then
    summary+=("$t: $a executions, no crash")
  else
    failed=1
    summary+=("$t: $b executions, CRASH (exit $a) $c")
    tail -n 40 "$build/logs/$t.log"
    [ -n "$c" ] && echo "reproduce: $build/fuzz/$t $c"
  fi
done
echo "== fuzz summary (${seconds} s per target; logs in $build/logs)"
printf '%s\n' "${summary[@]}"
exit $failed
