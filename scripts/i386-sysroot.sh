#!/bin/sh
# Prepares what the 32-bit x86 build needs in a folder of the build tree:
# Debian's i386 OpenSSL and SQLite packages, fetched with `apt-get download`
# and unpacked with `dpkg -x` (installing them through multiarch fails where
# the amd64 and i386 versions differ), and GoogleTest built for i386 from
# the sources Debian's googletest package ships.
#   scripts/i386-sysroot.sh DIR
set -e
dir="$1"
[ -n "$dir" ] || { echo "usage: $0 DIR" >&2; exit 2; }
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
stamp="$dir/.ready"
[ -f "$stamp" ] && exit 0

if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $SUDO dpkg --add-architecture i386
  $SUDO apt-get update -q || true  # a mirror in mid-sync may fail one index; the rest still serves
fi
mkdir -p "$dir/debs" "$dir/root"
cd "$dir/debs"
if ! apt-get download libssl-dev:i386 libssl3:i386 libsqlite3-0:i386 > /dev/null; then
  $SUDO apt-get update -q || true  # a mirror in mid-sync may fail one index; the rest still serves
  apt-get download libssl-dev:i386 libssl3:i386 libsqlite3-0:i386 > /dev/null
fi
for deb in ./*.deb; do dpkg -x "$deb" "$dir/root"; done

# GoogleTest (with GoogleMock) for i386.
cmake -S /usr/src/googletest -B "$dir/gtest-build" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_INSTALL_PREFIX="$dir/gtest" > /dev/null
cmake --build "$dir/gtest-build" -j "$(nproc)" > /dev/null
cmake --install "$dir/gtest-build" > /dev/null
touch "$stamp"
