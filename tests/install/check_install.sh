#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks the layout, a program
# built by hand with -ltql -lActuatorController, one built with find_package,
# the installed host in a copy of the installed demo directory, and the
# example host program (examples/host) built and run as an integrator would.
set -euo pipefail
build=$1
src=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
# Debian's multiarch directory, e.g. lib/x86_64-linux-gnu.
lib=lib/$(${CXX:-c++} -print-multiarch 2>/dev/null || true)
lib=${lib%/}
for f in bin/tql $lib/libtql.so $lib/libActuatorController.so $lib/cmake/tql/tqlConfig.cmake \
         include/tql/mechnical_unit.h include/tql/database.h include/tql/math_fun.h include/tql/execute.h \
         include/tql/actuatorcontroller.h include/tql/dynamics.h include/tql/kinematics.h include/tql/sim_control.h \
         bin/tql-identify bin/tql-excite share/tql/demo/parameter.db share/tql/demo/sim.conf share/tql/demo/arm.urdf \
         share/tql/demo/hand.csv share/tql/demo/file/trajectory.txt include/tql/interpolation.h; do
  [ -e "$prefix/$f" ] || { echo "missing $f"; exit 1; }
done
[ ! -e "$prefix/share/tql/demo/sim_state.txt" ] || { echo "installed demo holds a simulator state"; exit 1; }

${CXX:-c++} -std=c++17 "$src/consumer.cpp" -I"$prefix/include" -L"$prefix/$lib" -ltql -lActuatorController \
  -Wl,-rpath,"$prefix/$lib" -o "$work/by_hand"
"$work/by_hand"

cmake -S "$src" -B "$work/pkg" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/pkg" >/dev/null
"$work/pkg/consumer"

cp -r "$prefix/share/tql/demo" "$work/run"
(cd "$work/run" && TQL_SIM_CLOCK=virtual "$prefix/bin/tql" mode0 </dev/null) | grep -qx "Disable robot size = 6"

# The example host program, as an integrator builds it, on the simulated arm.
cmake -S "$src/../../examples/host" -B "$work/example" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/example" >/dev/null
cp -r "$prefix/share/tql/demo" "$work/host"
(cd "$work/host" && TQL_SIM_CLOCK=virtual TQL_SIM_RECORD=rec.csv "$work/example/host_example" </dev/null >out.txt 2>err.txt) ||
  { cat "$work/host/out.txt" "$work/host/err.txt"; echo "example host failed"; exit 1; }
grep -q "^replayed: " "$work/host/out.txt" && grep -q ", 0 beyond limits" "$work/host/err.txt" ||
  { cat "$work/host/out.txt" "$work/host/err.txt"; echo "example host: no replay or set-points beyond limits"; exit 1; }
[ "$(grep -c '^MOVJ VJ=100 z5 ' "$work/host/file/host_program.txt")" -eq 3 ] || { echo "example host: program not recorded"; exit 1; }
echo "install layout ok"
