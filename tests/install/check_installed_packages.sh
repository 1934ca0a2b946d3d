#!/bin/sh
# Installs the built Debian packages with apt, checks the consumer programs
# and the tool against the system copy, then removes the packages.
set -e
debs=$(cd "$1" && pwd)
here=$(cd "$2" && pwd)
tmp=$(mktemp -d)
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
cleanup() {
  $SUDO apt-get remove -y -q vekutil libvekutil-dev libvekutil0 > /dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT
$SUDO apt-get install -y -q "$debs"/libvekutil0_*.deb "$debs"/libvekutil-dev_*.deb "$debs"/vekutil_*.deb
. "$here/consumers.sh"
build_consumers /usr "$tmp/consumers" "$here"
vekutil version
check_tool vekutil "$(man -w vekutil)"
echo "installed packages: ok"
