#!/usr/bin/env bash
# Installs what is missing (Debian packages, as root; the pendant's npm
# packages), builds everything with warnings as errors, runs every test (the
# Python module and tql-plot, the URDF round trip, the pendant in headless
# Chromium, the installed tree and the Debian packages installed into a scratch
# root and every shell command of the README and docs/ among them), then
# builds and runs them again under
# the address and undefined-behaviour sanitizers, the threaded tests under
# the thread sanitizer, every test again cross-built for the board (32-bit ARM)
# under qemu-arm, and each fuzz target for 20 s.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(build-essential cmake pkg-config libsqlite3-dev libgtest-dev libgmock-dev
          libbenchmark-dev liborocos-kdl-dev libeigen3-dev liburdfdom-dev
          python3-dev python3-numpy python3-matplotlib pybind11-dev chromium file
          libboost-dev nlohmann-json3-dev libcli11-dev python3-websocket dpkg-dev
          sqlite3 python3-sympy)
missing=()
# Node.js and npm from Debian where the machine has none of its own.
command -v npm >/dev/null || packages+=(nodejs npm)
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq || echo "apt-get update was incomplete; installing from the lists it got"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi

# The pendant's page takes three.js and urdf-loader, and its browser test
# playwright-core and pixelmatch, from the npm registry, at the versions
# web/package-lock.json pins.
if [ ! -d web/node_modules/urdf-loader ] || [ ! -d web/node_modules/pixelmatch ]; then
  npm ci --prefix web --no-audit --no-fund </dev/null
fi

jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DTQL_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout 600 </dev/null
}

# Each stage prints its cost when the next one starts.
stage_start=$SECONDS
stage() {
  [ -n "${stage_name:-}" ] && echo "-- $stage_name took $((SECONDS - stage_start)) s"
  stage_name=$1
  stage_start=$SECONDS
  echo "== $1 =="
}

stage "build and test"
run_suite build/ci -DTQL_BUILD_BENCH=ON
stage "address + undefined-behaviour sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan -DTQL_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
stage "thread sanitizer: the threaded tests (drag teaching, monitoring)"
cmake -S . -B build/tsan -DTQL_WERROR=ON -DTQL_TSAN=ON >/dev/null
cmake --build build/tsan -j"$jobs" --target drag_teach_test teach_test
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build/tsan --output-on-failure -j"$jobs" --timeout 600 \
  -R '^(DragTeach|Teaching)\.' </dev/null
stage "the board: 32-bit ARM cross build, every test under qemu-arm"
tools/cross-build.sh
stage "fuzzing: every target 20 s"
TQL_FUZZ_JOBS="$jobs" tools/fuzz.sh 20
stage "done"
echo "All tests passed in $SECONDS s."
