#!/bin/sh
# Installs the Debian packages the build and the tests need, when run as root
# and only if something is missing.  Quiet when everything is there.
#
# The network lab (tests/lab) needs programs of its own; they are installed
# when run as root.  Without root the lab is skipped anyway, so their absence
# is no error.
set -eu

PACKAGES="cmake ninja-build g++ pkg-config binutils googletest libgtest-dev \
libgmock-dev libbenchmark-dev libtins-dev libpcap-dev nlohmann-json3-dev \
libcli11-dev libtomlplusplus-dev libcpp-httplib-dev clang-14 libclang-rt-14-dev \
libfuzzer-14-dev valgrind"
LAB_PACKAGES="python3-pytest python3-scapy dnsmasq-base isc-dhcp-client \
dhcpcd-base iproute2 iputils-ping ethtool radvd \
nftables netsniff-ng thc-ipv6 yersinia dsniff etcd-server etcd-client"

missing_of() {
   for pkg in "$@"; do
      status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
      case "$status" in
         *"install ok installed"*) ;;
         *) printf ' %s' "$pkg" ;;
      esac
   done
}

# shellcheck disable=SC2086
missing=$(missing_of $PACKAGES)
# shellcheck disable=SC2086
lab_missing=$(missing_of $LAB_PACKAGES)

[ -z "$missing" ] && [ -z "$lab_missing" ] && exit 0

if [ "$(id -u)" != "0" ]; then
   if [ -n "$missing" ]; then
      echo "missing packages:$missing (run as root to install them)" >&2
      exit 1
   fi
   exit 0
fi
echo "installing:$missing$lab_missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq >/dev/null
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing $lab_missing >/dev/null
