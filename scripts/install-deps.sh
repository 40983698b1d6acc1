#!/bin/sh
# Installs the Debian packages the build needs, when run as root and only if
# something is missing.  Quiet when everything is there.
set -eu

PACKAGES="cmake ninja-build g++ pkg-config binutils googletest libgtest-dev \
libgmock-dev libbenchmark-dev libtins-dev libpcap-dev nlohmann-json3-dev \
libcli11-dev"

missing=""
for pkg in $PACKAGES; do
   status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
   case "$status" in
      *"install ok installed"*) ;;
      *) missing="$missing $pkg" ;;
   esac
done

[ -z "$missing" ] && exit 0

if [ "$(id -u)" != "0" ]; then
   echo "missing packages:$missing (run as root to install them)" >&2
   exit 1
fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq >/dev/null
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing >/dev/null
