#!/usr/bin/env bash
# Installs a configured build to a temporary prefix and builds a small program of a user's against it
# twice: through find_package(Velmor) (shared and static) and through pkg-config; runs each. Then builds
# the Debian package and checks its file list and dependencies.
#   Tests/install/check-install.sh [BUILD_DIR]     (default build/default)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:-$here/../../build/default}" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

echo "== install to $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in include/velmor/Velmor.h include/velmor/VelmorManager.h include/velmor/VelmorSystemMIDIService.h \
         include/velmor/VelmorInProcessMIDIService.h bin/velmor; do
  [ -e "$prefix/$f" ] || { echo "FAIL: $f not installed"; exit 1; }
done
so="$(find "$prefix" -name 'libvelmor.so.*.*' | head -1)"
[ -n "$so" ] || { echo "FAIL: no versioned libvelmor.so"; exit 1; }
soname="$(objdump -p "$so" | awk '/SONAME/ {print $2}')"
[ "$soname" = "libvelmor.so.0" ] || { echo "FAIL: SONAME is '$soname'"; exit 1; }
[ -n "$(find "$prefix" -name libvelmor.a)" ] || { echo "FAIL: no libvelmor.a"; exit 1; }
libdir="$(dirname "$so")"

echo "== find_package(Velmor)"
cmake -S "$here/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-build" -j2 >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer-shared"
"$work/cmake-build/consumer-static"
# Not `ldd | grep -q`: under pipefail, grep leaving early can fail the pipe with SIGPIPE.
linked="$(ldd "$work/cmake-build/consumer-shared")"
grep -q "libvelmor.so.0 => $libdir" <<<"$linked" \
  || { echo "FAIL: consumer-shared does not use the installed libvelmor.so.0"; exit 1; }

echo "== pkg-config velmor"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++20 -o "$work/consumer-pc" "$here/consumer/main.cpp" $(pkg-config --cflags --libs velmor)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"
"$prefix/bin/velmor" --service in-process list >/dev/null

echo "== Debian package"
(cd "$build" && cpack -G DEB -B "$work/deb" >/dev/null)
deb="$(ls "$work"/deb/*.deb)"
dpkg-deb -c "$deb" > "$work/files"
for f in ./usr/bin/velmor ./usr/include/velmor/Velmor.h ./usr/lib/libvelmor.a ./usr/lib/cmake/Velmor/VelmorConfig.cmake \
         ./usr/lib/pkgconfig/velmor.pc; do
  grep -q " $f\$" "$work/files" || { echo "FAIL: $f not in the package"; cat "$work/files"; exit 1; }
done
grep -q ' ./usr/lib/libvelmor.so.0 -> ' "$work/files" || { echo "FAIL: no libvelmor.so.0 link in the package"; exit 1; }
depends="$(dpkg-deb -f "$deb" Depends)"
echo "Depends: $depends"
case "$depends" in *libstdc++6*) ;; *) echo "FAIL: Depends lacks libstdc++6"; exit 1;; esac
if grep -q '^Requires.private:.*alsa' "$libdir/pkgconfig/velmor.pc"; then
  case "$depends" in *libasound2*) ;; *) echo "FAIL: built with ALSA but Depends lacks libasound2"; exit 1;; esac
fi
echo "PASS: install, find_package, pkg-config and the Debian package"
