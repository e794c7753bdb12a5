#!/usr/bin/env bash
# Screenshot of the live view for the README: runs "tql mode4" in a scratch copy
# of the build's demo directory with the view on, stepping through a one-move
# program that takes the arm to a pose with joint 6 near its limit, and writes
# the page as it shows that pose.
# Usage: tools/view-screenshot.sh [BUILD_DIR] [OUT.png]   (build/release, docs/view.png)
# Needs node, /usr/bin/chromium and web/node_modules (npm install --prefix web).
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$src/build/release}" && pwd)
out=${2:-$src/docs/view.png}
case $out in /*) ;; *) out=$PWD/$out ;; esac
[ -x "$build/tql" ] && [ -f "$build/web/index.html" ] || { echo "no tql or web bundle in $build" >&2; exit 1; }
[ -d "$src/web/node_modules/playwright-core" ] || { echo "run: npm install --prefix web" >&2; exit 1; }

work=$(mktemp -d)
tql_pid=
cleanup() {
  exec 3>&-
  if [ -n "$tql_pid" ]; then kill "$tql_pid" 2>/dev/null || true; wait "$tql_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
cp -r "$build/demo/." "$work/"
rm -f "$work/sim_state.txt"
# Joint angles in degrees. In STEP mode tql waits for the next FORWARD after
# the move, holding the pose for the browser.
echo 'MOVJ VJ=100 z0 15,10,75,-20,-75,166' >"$work/file/data.txt"
mkfifo "$work/answers"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
(cd "$work" && exec env TQL_SIM_VIEW="$port" TQL_SIM_CLOCK=real "$build/tql" mode4 <answers >out.txt 2>&1) &
tql_pid=$!
exec 3>"$work/answers"
printf '1\nSTEP\nFORWARD\n' >&3

# Until the bus reports the pose reached (joint 6 within 0.1 degree).
python3 - "$port" <<'PY'
import json, sys, time, urllib.request
end = time.time() + 30
while time.time() < end:
    try:
        state = json.load(urllib.request.urlopen(f"http://127.0.0.1:{sys.argv[1]}/state", timeout=1))
        if abs(state["actuators"][5]["angle_deg"] - 166) < 0.1:
            sys.exit(0)
    except (OSError, ValueError, LookupError, TypeError):
        pass
    time.sleep(0.1)
sys.exit("the arm did not reach the pose")
PY
mkdir -p "$(dirname "$out")"
node "$src/web/screenshot.mjs" "$port" "$out"
echo "wrote $out"
