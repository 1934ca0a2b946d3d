#!/bin/sh
# Builds the three Debian packages with CPack, unpacks them into a scratch
# root, checks their names and dependencies, builds the consumer programs
# against the unpacked development files and runs them and the tool.
set -e
build="$1"
here="$2"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
( cd "$tmp" && cpack --config "$build/CPackConfig.cmake" -B "$tmp/debs" > "$tmp/cpack.log" ) ||
  { cat "$tmp/cpack.log"; exit 1; }
for name in libvekutil0 libvekutil-dev vekutil; do
  deb=$(ls "$tmp"/debs/${name}_*.deb)
  [ "$(dpkg-deb -f "$deb" Package)" = "$name" ] || { echo "bad package name in $deb"; exit 1; }
  dpkg-deb -x "$deb" "$tmp/root"
done
dpkg-deb -f "$tmp"/debs/libvekutil0_*.deb Depends | grep -q libssl3
dpkg-deb -f "$tmp"/debs/libvekutil0_*.deb Recommends | grep -q libsqlite3-0
dpkg-deb -f "$tmp"/debs/vekutil_*.deb Depends | grep -q libvekutil0
soname=$(find "$tmp/root" -name 'libvekutil.so.0' | head -n 1)
[ -n "$soname" ] || { echo "no libvekutil.so.0 in the runtime package"; exit 1; }
[ -z "$(dpkg-deb -c "$tmp"/debs/libvekutil0_*.deb | grep 'libvekutil.so$')" ] ||
  { echo "the unversioned link belongs to the -dev package"; exit 1; }

. "$here/consumers.sh"
build_consumers "$tmp/root/usr" "$tmp/consumers" "$here"
env -u LD_LIBRARY_PATH "$tmp/root/usr/bin/vekutil" version
check_tool "$tmp/root/usr/bin/vekutil" "$tmp/root/usr/share/man/man1/vekutil.1"
echo "packages: ok"
