#!/bin/sh
# Installs the statsd daemon from the npm registry into DIR (a folder of the
# build tree) for the tests that talk to it; does nothing when it is already
# there. Node.js and npm come from Debian when the machine has neither.
# Usage: install-statsd.sh DIR
set -e
dir="$1"
[ -n "$dir" ] || { echo "usage: $0 DIR" >&2; exit 2; }
version=0.9.0
[ -f "$dir/node_modules/statsd/stats.js" ] && exit 0
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  "$(dirname "$0")/install-deps.sh" nodejs npm
fi
mkdir -p "$dir"
# Several build trees may install at once; each works in its own folder, and
# the lock keeps two runs in one folder from interleaving.
exec 9>"$dir/.install.lock"
flock 9
[ -f "$dir/node_modules/statsd/stats.js" ] && exit 0
# The optional syslog backend needs a native build the tests do not use.
npm install --prefix "$dir" --omit=optional --no-audit --no-fund --no-package-lock --loglevel=error \
  "statsd@$version" >&2
test -f "$dir/node_modules/statsd/stats.js"
