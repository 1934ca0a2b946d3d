#!/bin/sh
# Installs the built tree into an unusual private prefix, then builds and runs
# a tiny C program against it twice: once through pkg-config, once through
# CMake's find_package(vekutil). The installed tool must run without
# LD_LIBRARY_PATH, and again after the whole prefix has been moved.
set -e
build="$1"
here="$2"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/an-unusual-prefix/opt"
cmake --install "$build" --prefix "$prefix" > /dev/null
. "$here/consumers.sh"
build_consumers "$prefix" "$tmp/consumers" "$here"

if [ -x "$prefix/bin/vekutil" ]; then
  env -u LD_LIBRARY_PATH "$prefix/bin/vekutil" version
  mv "$tmp/an-unusual-prefix" "$tmp/moved"
  env -u LD_LIBRARY_PATH "$tmp/moved/opt/bin/vekutil" version
fi
echo "install and link: ok"
