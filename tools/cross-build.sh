#!/usr/bin/env bash
# Cross-builds the library, the simulated bus, the host and the unit tests for
# the controller board (32-bit ARM, hard-float) and runs the unit tests under
# qemu-arm. Installs the cross compiler and qemu-user if missing (as root).
set -euo pipefail
cd "$(dirname "$0")/.."
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"

missing=()
for p in g++-arm-linux-gnueabihf qemu-user cmake googletest; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi

# SQLite for the target, unpacked from Debian's armhf packages.
sysroot=$PWD/build/armhf-sysroot
if [ ! -e "$sysroot/usr/lib/arm-linux-gnueabihf/libsqlite3.so" ]; then
  mkdir -p build/armhf-debs "$sysroot"
  (cd build/armhf-debs && apt-get download libsqlite3-0:armhf libsqlite3-dev:armhf 2>/dev/null) || {
    # apt only lists packages of the architectures it was told about.
    $SUDO dpkg --add-architecture armhf
    $SUDO apt-get update -qq || echo "apt-get update was incomplete; trying with the lists it got"
    (cd build/armhf-debs && apt-get download libsqlite3-0:armhf libsqlite3-dev:armhf)
  }
  for deb in build/armhf-debs/*.deb; do dpkg -x "$deb" "$sysroot"; done
fi

cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
  -DTQL_ARMHF_SYSROOT="$sysroot" -DTQL_GTEST_FROM_SOURCE=ON -DTQL_WERROR=ON >/dev/null
cmake --build build/armhf -j"$(nproc 2>/dev/null || echo 2)"
export QEMU_LD_PREFIX=/usr/arm-linux-gnueabihf
export LD_LIBRARY_PATH="$sysroot/usr/lib/arm-linux-gnueabihf${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
# The end-to-end tests start the host as a child process, which qemu-user
# does not follow; they run in the native build.
ctest --test-dir build/armhf -L unit --output-on-failure -j"$(nproc 2>/dev/null || echo 2)" </dev/null
file build/armhf/tql build/armhf/libtql.so* | sed 's/,.*//'
