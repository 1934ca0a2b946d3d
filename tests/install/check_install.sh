#!/bin/sh
# Installs the built tree into a private prefix, then builds and runs a tiny C
# program against it twice: once through pkg-config, once through CMake's
# find_package(vekutil).
set -e
build="$1"
here="$2"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" > /dev/null
libdir=$(ls -d "$tmp"/prefix/lib*/pkgconfig | head -n 1 | xargs dirname)

PKG_CONFIG_PATH="$libdir/pkgconfig" cc -std=c11 -Wall -Wextra -Werror "$here/consumer.c" -o "$tmp/with_pkgconfig" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs vekutil)
LD_LIBRARY_PATH="$libdir" "$tmp/with_pkgconfig"

cmake -S "$here/consumer" -B "$tmp/consumer-build" -DCMAKE_PREFIX_PATH="$tmp/prefix" -DCONSUMER_SOURCE="$here/consumer.c" > /dev/null
cmake --build "$tmp/consumer-build" > /dev/null
LD_LIBRARY_PATH="$libdir" "$tmp/consumer-build/consumer"
echo "install and link: ok"
