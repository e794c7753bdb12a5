#!/usr/bin/env bash
# Builds the project and runs the host on the simulated arm in a working copy
# of the demo directory (./run, created on first use; delete it for a fresh arm).
# While it runs, the live 3D view is served at http://127.0.0.1:8765/ (another
# port with TQL_SIM_VIEW=PORT, none with TQL_SIM_VIEW=0); the run's flight
# recording (run/last-run.csv) is then plotted into run/plots/ when
# python3-matplotlib is installed.
# Usage: tools/run-demo.sh [MODE]   (default mode4: runs file/data.txt)
set -euo pipefail
cd "$(dirname "$0")/.."
# The live view's page takes three.js from the npm registry (web/package-lock.json).
if [ ! -d web/node_modules/three ] && command -v npm >/dev/null; then
  npm ci --prefix web --no-audit --no-fund >/dev/null 2>&1 || echo "npm ci failed: the live view's page is left out" >&2
fi
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTQL_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
if [ ! -d run ]; then
  cp -r build/release/demo run
  rm -f run/sim_state.txt
fi
cd run

export TQL_SIM_VIEW=${TQL_SIM_VIEW:-8765}
if [ -f ../build/release/web/index.html ] && [ "$TQL_SIM_VIEW" != 0 ] && [ "$TQL_SIM_VIEW" != none ]; then
  echo "Live 3D view: open http://127.0.0.1:$TQL_SIM_VIEW/ in a browser while the arm runs." >&2
fi
export TQL_SIM_RECORD=${TQL_SIM_RECORD:-last-run.csv}
status=0
../build/release/tql "${1:-mode4}" || status=$?

if [ -s "$TQL_SIM_RECORD" ] && grep -q ',setPosition,' "$TQL_SIM_RECORD" &&
   /usr/bin/python3 -c 'import matplotlib' 2>/dev/null; then
  echo "Plots of this run:" >&2
  ../build/release/tql-plot "$TQL_SIM_RECORD" --out plots/ | sed 's#^#  run/#' >&2 || true
fi
exit $status
