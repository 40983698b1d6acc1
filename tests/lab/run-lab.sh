#!/bin/sh
# Runs the network lab (pytest) against vigild and vigilctl of a build.
# Usage: run-lab.sh VIGILD VIGILCTL [PYTEST ARGS...]
# Exit 77 (a skip for CTest) with the reason when the lab cannot run here:
# not root, no network namespaces, or a program it drives is missing.
set -u
here=$(cd "$(dirname "$0")" && pwd)
VIGILD=$1
VIGILCTL=$2
shift 2

skip() {
   echo "lab skipped: $*"
   exit 77
}

[ "$(id -u)" = "0" ] || skip "needs root (it makes network namespaces and veth pairs)"
probe="vlprobe$$"
if ! ip netns add "$probe" 2>/dev/null; then
   skip "network namespaces cannot be made here"
fi
ip netns del "$probe" 2>/dev/null
# Debian's interpreter, which has python3-pytest and python3-scapy.
PYTHON=/usr/bin/python3
[ -x "$PYTHON" ] || PYTHON=$(command -v python3 || true)
[ -n "$PYTHON" ] || skip "no python3"
"$PYTHON" -c "import pytest, scapy.all" 2>/dev/null ||
   skip "python3-pytest and python3-scapy are needed (scripts/install-deps.sh installs them as root)"
for prog in dnsmasq dhclient ping ethtool; do
   command -v "$prog" >/dev/null 2>&1 || skip "$prog is missing (scripts/install-deps.sh installs it as root)"
done

export VIGILD VIGILCTL PYTHONDONTWRITEBYTECODE=1
cd "$here" || exit 1
exec "$PYTHON" -m pytest -q -p no:cacheprovider "$@" .
