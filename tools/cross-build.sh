#!/usr/bin/env bash
# Cross-builds the library, the simulated bus (with its physics), the host,
# the dynamics tools and the tests for the controller board (32-bit ARM,
# hard-float) and runs the tests under qemu-arm: unit, end-to-end and the
# short soak; not the install test (see below). Then builds the board's
# Debian packages and runs the packaged host on the packaged demo directory.
# Installs the cross compiler and qemu-user if missing (as root). The target's
# libraries come from Debian's armhf packages, unpacked into a sysroot.
set -euo pipefail
cd "$(dirname "$0")/.."
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
jobs=$(nproc 2>/dev/null || echo 2)
start=$SECONDS

missing=()
for p in g++-arm-linux-gnueabihf qemu-user cmake googletest; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  $SUDO apt-get update -qq || echo "apt-get update was incomplete; installing from the lists it got"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi

# The target's SQLite, KDL and urdfdom (with console_bridge and TinyXML) as
# armhf packages, and the header-only ones (Eigen, urdfdom's model headers,
# and the pendant's Boost.Beast, nlohmann-json and CLI11). Unpacked again whenever this list changes.
sysroot=$PWD/build/armhf-sysroot
debs=$PWD/build/armhf-debs
packages=(libsqlite3-0:armhf libsqlite3-dev:armhf
          liborocos-kdl1.5:armhf liborocos-kdl-dev:armhf
          liburdfdom-model3.0:armhf liburdfdom-model-state3.0:armhf liburdfdom-sensor3.0:armhf
          liburdfdom-world3.0:armhf liburdfdom-dev:armhf
          libconsole-bridge1.0:armhf libconsole-bridge-dev:armhf libtinyxml2.6.2v5:armhf libtinyxml-dev:armhf
          liburdfdom-headers-dev libeigen3-dev
          libboost1.74-dev:armhf nlohmann-json3-dev libcli11-dev)
if [ "$(cat "$sysroot/.packages" 2>/dev/null)" != "${packages[*]}" ]; then
  rm -rf "$sysroot" "$debs"
  mkdir -p "$debs" "$sysroot"
  (cd "$debs" && apt-get -qq download "${packages[@]}" 2>/dev/null) || {
    # apt only lists packages of the architectures it was told about.
    $SUDO dpkg --add-architecture armhf
    $SUDO apt-get update -qq || echo "apt-get update was incomplete; trying with the lists it got"
    (cd "$debs" && apt-get download "${packages[@]}")
  }
  for deb in "$debs"/*.deb; do dpkg -x "$deb" "$sysroot"; done
  # The packages' CMake files name their headers and libraries by absolute
  # /usr paths, which here would be the build machine's own: point them into
  # the sysroot.
  find "$sysroot" -name '*.cmake' -exec sed -i -E "s#([\";])/usr([/\"])#\\1$sysroot/usr\\2#g" {} +
  echo "${packages[*]}" >"$sysroot/.packages"
fi

# Optimised as the native build (-O2), without debug information, which
# would double the compile time of the Eigen and KDL code. The toolchain
# file's flags are read into a new cache only.
[ cmake/armhf-toolchain.cmake -nt build/armhf/CMakeCache.txt ] && rm -f build/armhf/CMakeCache.txt
cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
  -DTQL_ARMHF_SYSROOT="$sysroot" -DTQL_GTEST_FROM_SOURCE=ON -DTQL_WERROR=ON >/dev/null
cmake --build build/armhf -j"$jobs"
built=$SECONDS

# The tests, and the host and tools they start (tql, tql-identify,
# tql-excite, tql-pacing), run under qemu-arm: the tests start those through
# TQL_HOST_LAUNCHER, since qemu-user does not follow a child process into a
# new program. QEMU_LD_PREFIX gives every emulated program the target's C
# library and loader; the build's programs find libtql.so, the simulated bus
# and the unpacked libraries by their build RPATH (no LD_LIBRARY_PATH).
export QEMU_LD_PREFIX=/usr/arm-linux-gnueabihf
export TQL_HOST_LAUNCHER="qemu-arm -L $QEMU_LD_PREFIX"
echo "armhf: every test under qemu-arm but the install test, which this build leaves out:" \
     "it builds consumer programs with the build machine's own compiler"
# Left out here: three sweeps of the tools' and programs' refusals and of
# every cycle setting, whose arithmetic the other tests exercise on the
# board's build too; under emulation they cost four minutes (they run
# natively and under the sanitizers).
ctest --test-dir build/armhf --output-on-failure -j"$jobs" --timeout 600 \
  -E '^(Identification\.ToolsRefuseBadInputAndUnidentifiedFitsAndLeaveTheDatabaseWhole|CartesianMoves\.UnreachablePoseMidPathEndsTheMoveAfterTheReachablePart|Mode4\.ProgramsRunToTheEndInEveryCycleSetting)$' </dev/null
file build/armhf/tql build/armhf/libtql.so* | sed 's/,.*//'
tested=$SECONDS

# The board's Debian packages. Unpacked into a scratch root with the board's
# libraries beside them, the packaged host runs the demo program under
# qemu-arm from the packaged demo directory.
rm -rf build/armhf/packages
cpack --config build/armhf/CPackConfig.cmake -G DEB -B build/armhf/packages >/dev/null
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for deb in build/armhf/packages/*.deb; do
  [ "$(dpkg-deb -f "$deb" Architecture)" = armhf ] || { echo "armhf: $deb is not an armhf package"; exit 1; }
  dpkg-deb -x "$deb" "$root"
  echo "armhf package: $(basename "$deb")"
done
cp -r "$root/usr/share/tql/demo" "$root/run"
(cd "$root/run" && printf '1\nCYCLE\nNO\n' | TQL_SIM_CLOCK=virtual TQL_SIM_RECORD=rec.csv \
  qemu-arm -L "$QEMU_LD_PREFIX" -E LD_LIBRARY_PATH="$sysroot/usr/lib/arm-linux-gnueabihf" \
  "$root/usr/bin/tql" mode4 >out.txt 2>err.txt) || { cat "$root/run/out.txt" "$root/run/err.txt"; exit 1; }
grep -E '^sim: [1-9][0-9]* commands, 0 beyond limits$' "$root/run/err.txt" ||
  { cat "$root/run/err.txt"; echo "armhf package: the demo program did not run within limits"; exit 1; }
echo "armhf: build $((built - start)) s, tests under qemu-arm $((tested - built)) s, packages $((SECONDS - tested)) s"
