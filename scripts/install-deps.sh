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
# Server packages (proxies, FTP, HTTP, syslog) are only peers for the tests:
# keep their post-install scripts from starting system-wide services.
policy=/usr/sbin/policy-rc.d
added_policy=""
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null && $SUDO chmod +x "$policy" && added_policy=1
fi
status=0
# A mirror in mid-sync can fail one index (say, another architecture's);
# the install below still finds what the other indexes list.
$SUDO apt-get update -q || true
$SUDO apt-get install -y -q --no-install-recommends $missing || status=$?
[ -n "$added_policy" ] && $SUDO rm -f "$policy"
exit $status
