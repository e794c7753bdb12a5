#!/usr/bin/env bash
# Builds the project and runs the host on the simulated arm in a working copy
# of the demo directory (./run, created on first use; delete it for a fresh arm).
# Usage: tools/run-demo.sh [MODE]   (default mode4: runs file/data.txt)
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTQL_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
if [ ! -d run ]; then
  cp -r build/release/demo run
  rm -f run/sim_state.txt
fi
cd run
exec ../build/release/tql "${1:-mode4}"
