#!/bin/sh
# Installs the Debian packages named on the command line that are missing.
# Needs root (or sudo) only when something is actually missing.
set -e
missing=""
for pkg in "$@"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing="$missing $pkg"
done
[ -z "$missing" ] && exit 0
echo "installing:$missing"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends $missing
