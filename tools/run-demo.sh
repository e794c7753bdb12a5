#!/usr/bin/env bash
# Builds the project and runs the main job on the simulated arm in a working
# copy of the demo directory (./run, created on first use; delete it for a
# fresh arm): tql-pendant runs "tql MODE" with its dialogue on this terminal
# while it serves the pendant, whose URL it prints (port 8765, another with
# TQL_PENDANT_PORT). On a terminal the pendant stays up after the job, until
# Ctrl-C; otherwise it ends with the job. The run's flight recording
# (run/last-run.csv) is then plotted into run/plots/ when python3-matplotlib
# is installed.
# Usage: tools/run-demo.sh [MODE]   (default mode4: runs file/data.txt)
set -euo pipefail
cd "$(dirname "$0")/.."
# The pendant's page takes three.js and urdf-loader from the npm registry
# (web/package-lock.json).
if [ ! -d web/node_modules/urdf-loader ] && command -v npm >/dev/null; then
  npm ci --prefix web --no-audit --no-fund >/dev/null 2>&1 || echo "npm ci failed: the pendant's page is left out" >&2
fi
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DTQL_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
if [ ! -d run ]; then
  cp -r build/release/demo run
  rm -f run/sim_state.txt
fi
cd run

export TQL_SIM_RECORD=${TQL_SIM_RECORD:-last-run.csv}
status=0
if [ -x ../build/release/tql-pendant ]; then
  stay=()
  [ -t 0 ] && stay=(--stay)
  if [ "${1:-mode4}" = mode4 ] && [ ! -t 0 ] && [ -c /dev/stdin ]; then
    # Nobody to answer (standard input is /dev/null, as in CI): the demo's
    # answers, override 1, one cycle, not blended.
    printf '1\nCYCLE\nNO\n' | ../build/release/tql-pendant --port "${TQL_PENDANT_PORT:-8765}" --job mode4 ||
      status=$?
  else
    ../build/release/tql-pendant --port "${TQL_PENDANT_PORT:-8765}" --job "${1:-mode4}" "${stay[@]}" || status=$?
  fi
else
  ../build/release/tql "${1:-mode4}" || status=$?
fi

if [ -s "$TQL_SIM_RECORD" ] && grep -q ',setPosition,' "$TQL_SIM_RECORD" &&
   /usr/bin/python3 -c 'import matplotlib' 2>/dev/null; then
  echo "Plots of this run:" >&2
  ../build/release/tql-plot "$TQL_SIM_RECORD" --out plots/ | sed 's#^#  run/#' >&2 || true
fi
exit $status
