#!/usr/bin/env bash
# Builds the Debian packages of a build tree, installs them with dpkg into a
# scratch root, and runs the installed host on the installed demo directory.
# Usage: check_deb.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "deb: $*"; exit 1; }

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/pkgs" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
debs=("$work"/pkgs/*.deb)
names=()
for deb in "${debs[@]}"; do names+=("$(dpkg-deb -f "$deb" Package)"); done
echo "packages: ${names[*]}"
for want in libtql1 libtql-dev tql-sim tql; do
  [[ " ${names[*]} " == *" $want "* ]] || fail "no package $want"
done

# The simulated bus is its own package, so the board can take the maker's
# library instead: no other package may carry libActuatorController.so.
for deb in "${debs[@]}"; do
  [ "$(dpkg-deb -f "$deb" Package)" = tql-sim ] && continue
  ! dpkg-deb -c "$deb" | grep -q libActuatorController || fail "$deb carries the actuator library"
done

# Every dependency outside our own packages names a real package: one of each
# alternative list is installed here (this machine runs the same programs).
for deb in "${debs[@]}"; do
  IFS=',' read -ra deps <<<"$(dpkg-deb -f "$deb" Depends)"
  for dep in "${deps[@]}"; do
    ok=0
    IFS='|' read -ra alts <<<"$dep"
    for alt in "${alts[@]}"; do
      name=$(echo "$alt" | awk '{print $1}')
      [[ " ${names[*]} " == *" $name "* ]] && ok=1
      dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q "install ok installed" && ok=1
    done
    [ "$ok" = 1 ] || fail "$(dpkg-deb -f "$deb" Package) depends on '$dep', which is no installed package"
  done
done

# Install into a scratch root with dpkg itself (the system's own libraries
# stay outside the root, hence --force-depends).
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
dpkg --root="$root" --log=/dev/null --force-depends --force-script-chrootless -i "${debs[@]}" \
  >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i failed"; }
for name in "${names[@]}"; do
  dpkg --root="$root" -s "$name" 2>/dev/null | grep -qx "Status: install ok installed" || fail "$name not installed"
done

# The installed host takes the installed library and bus, not the build's.
for lib in libtql.so.1 libActuatorController.so; do
  found=$(env -u LD_LIBRARY_PATH ldd "$root/usr/bin/tql" | awk -v l="$lib" '$1 == l {print $3}')
  packaged=$(find "$root/usr/lib" -name "$lib" | head -1)  # in the multiarch directory
  [[ "$packaged" == "$root"/usr/lib/*-linux-gnu*/"$lib" ]] || fail "$lib is not in a multiarch directory: '$packaged'"
  [ "$(readlink -f "$found")" = "$(readlink -f "$packaged")" ] ||
    fail "installed tql loads $lib from '$found', not from the package"
done

# The demo program from the installed demo directory, on the simulated arm.
cp -r "$root/usr/share/tql/demo" "$work/run"
(cd "$work/run" && printf '1\nCYCLE\nNO\n' | env -u LD_LIBRARY_PATH TQL_SIM_CLOCK=virtual TQL_SIM_RECORD=rec.csv \
  "$root/usr/bin/tql" mode4 >out.txt 2>err.txt) || { cat "$work/run/out.txt" "$work/run/err.txt"; fail "tql mode4 failed"; }
grep -Eq '^sim: [1-9][0-9]* commands, 0 beyond limits$' "$work/run/err.txt" ||
  { cat "$work/run/err.txt"; fail "tql mode4: no motion or set-points beyond limits"; }

# The Python module and the plotting tool, where the build has them.
if [[ " ${names[*]} " == *" python3-tql "* ]]; then
  PYTHONPATH="$root/usr/lib/python3/dist-packages" /usr/bin/python3 -c \
    "import tql, sys; sys.exit(0 if tql.__file__.startswith('$root/') else 1)" || fail "python3-tql not importable"
fi
if [ -x "$root/usr/bin/tql-plot" ] && /usr/bin/python3 -c 'import matplotlib' 2>/dev/null; then
  (cd "$work/run" && "$root/usr/bin/tql-plot" rec.csv --out "$work/plots" >/dev/null) || fail "installed tql-plot failed"
  ls "$work"/plots*/*.png >/dev/null 2>&1 || ls "$work"/plots*.png >/dev/null 2>&1 || fail "installed tql-plot wrote no PNG"
fi
echo "deb packages ok: ${names[*]}"
