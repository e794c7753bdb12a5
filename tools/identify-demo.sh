#!/bin/sh
# identify-demo.sh DEMO_DIR TQL TQL_IDENTIFY [LAUNCHER...]
#
# Build step of the demo working directory: identifies the simulated arm as
# a user identifies theirs. In a scratch copy of DEMO_DIR (so the demo keeps
# its arm at home and no recording), `tql admin` runs the excitation on the
# simulated arm (noisy currents, virtual clock), and `tql-identify --write`
# stores the fitted dynamic parameters and the collision thresholds derived
# from them in DEMO_DIR/parameter.db. LAUNCHER (e.g. qemu-arm -L ...) runs
# the programs of a cross build.
set -eu
[ $# -ge 3 ] || { echo "usage: $0 DEMO_DIR TQL TQL_IDENTIFY [LAUNCHER...]" >&2; exit 2; }
demo=$1 tql=$2 identify=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$demo"/. "$work"
rm -f "$work/sim_state.txt" "$work/file/excitation_output.txt"
if ! (cd "$work" && printf '1\n' | TQL_SIM_CLOCK=virtual "$@" "$tql" admin >"$work/admin.txt" 2>&1); then
  cat "$work/admin.txt" >&2
  echo "$0: the identification run on the simulated arm failed" >&2
  exit 1
fi
if ! "$@" "$identify" "$work/file/excitation_output.txt" --write "$demo/parameter.db" >"$work/identify.txt" 2>&1; then
  cat "$work/identify.txt" >&2
  exit 1
fi
grep -E "^(fit|collision thresholds)" "$work/identify.txt"
