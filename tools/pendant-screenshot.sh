#!/usr/bin/env bash
# Screenshot of the pendant for the README: tql-pendant in a scratch copy of
# the build's demo directory, a one-move program taking the arm to a pose with
# joint 6 near its limit run through the pendant's API (python/tql_pendant.py),
# then the page as it shows that pose, at a tablet's 1024x640.
# Usage: tools/pendant-screenshot.sh [BUILD_DIR] [OUT.png]   (build/release, docs/pendant.png)
# Needs node, /usr/bin/chromium, python3-websocket and web/node_modules (npm ci --prefix web).
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$src/build/release}" && pwd)
out=${2:-$src/docs/pendant.png}
case $out in /*) ;; *) out=$PWD/$out ;; esac
[ -x "$build/tql-pendant" ] && [ -f "$build/web/index.html" ] || { echo "no tql-pendant or page bundle in $build" >&2; exit 1; }
[ -d "$src/web/node_modules/playwright-core" ] || { echo "run: npm ci --prefix web" >&2; exit 1; }

work=$(mktemp -d)
pid=
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
cp -r "$build/demo/." "$work/"
rm -f "$work/sim_state.txt"
(cd "$work" && exec "$build/tql-pendant" --port 0 >out.txt 2>err.txt) &
pid=$!
for _ in $(seq 100); do grep -q '^Pendant: ' "$work/err.txt" 2>/dev/null && break; sleep 0.1; done
url=$(sed -n 's/^Pendant: //p' "$work/err.txt")
[ -n "$url" ] || { cat "$work/err.txt" >&2; exit 1; }
# Joint angles in degrees; the pendant replies when the run has ended.
PYTHONPATH="$src/python" /usr/bin/python3 - "${url/http:/ws:}ws" <<'PY'
import sys
from tql_pendant import Pendant
with Pendant(sys.argv[1]) as arm:
    arm.save_program("MOVJ VJ=100 z0 15,10,75,-20,-75,166\nMOVJ VJ=100 z0 15,10,75,-20,-75,167\n")
    arm.run()
    arm.teach("MOVJ")
PY
mkdir -p "$(dirname "$out")"
node "$src/web/screenshot.mjs" "$url" "$out" 1024x640
echo "wrote $out"
