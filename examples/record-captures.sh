#!/bin/sh
# Records the DHCP exchange that examples/demo.vsim replays, from real
# programs: dnsmasq as the DHCP server and dhclient as the client, in two
# network namespaces joined through a Linux bridge in a third one, the
# "switch".  tcpdump listens on the bridge port of the client, which is where
# the filter sits on a virtual switch.
#
# Run by hand as root:  sh examples/record-captures.sh
# It installs dnsmasq, isc-dhcp-client, tcpdump, iproute2 and ethtool if missing,
# uses only addresses of 192.0.2.0/24, ends within about 30 seconds and
# removes everything it made.  Written files:
#   examples/captures/dhcp-exchange.pcap  the whole exchange, both directions
#   examples/captures/dhcp-vm-tx.pcap     what the client sent (DISCOVER, REQUEST)
#   examples/captures/dhcp-vm-rx.pcap     what reached the client (OFFER, ACK)
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out="$here/captures"
prefix="vsrec$$"
sw="${prefix}-sw"
srv="${prefix}-srv"
vm="${prefix}-vm"
work=$(mktemp -d)

SERVER_MAC=02:00:00:00:00:01
SERVER_IP=192.0.2.1
CLIENT_MAC=02:00:00:00:00:10
CLIENT_IP=192.0.2.50
LEASE=2m   # the shortest lease dnsmasq hands out: 120 seconds

if [ "$(id -u)" != "0" ]; then
   echo "record-captures.sh: run as root (it makes network namespaces)" >&2
   exit 1
fi

need=""
command -v dnsmasq >/dev/null 2>&1 || need="$need dnsmasq"
command -v dhclient >/dev/null 2>&1 || need="$need isc-dhcp-client"
command -v tcpdump >/dev/null 2>&1 || need="$need tcpdump"
command -v ip >/dev/null 2>&1 || need="$need iproute2"
command -v ethtool >/dev/null 2>&1 || need="$need ethtool"
if [ -n "$need" ]; then
   echo "installing:$need"
   export DEBIAN_FRONTEND=noninteractive
   apt-get update -qq >/dev/null
   # shellcheck disable=SC2086
   apt-get install -y -qq --no-install-recommends $need >/dev/null
fi

cleanup() {
   for f in "$work"/*.pid; do
      [ -f "$f" ] && kill "$(cat "$f")" 2>/dev/null || true
   done
   sleep 0.5
   for ns in "$vm" "$srv" "$sw"; do
      ip netns del "$ns" 2>/dev/null || true
   done
   rm -rf "$work"
}
trap cleanup EXIT INT TERM

in_ns() { ns=$1; shift; ip netns exec "$ns" "$@"; }

# Three namespaces, without IPv6 so that only the DHCP exchange is on the wire.
for ns in "$sw" "$srv" "$vm"; do
   ip netns add "$ns"
   in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
   in_ns "$ns" sysctl -qw net.ipv6.conf.default.disable_ipv6=1
   in_ns "$ns" ip link set lo up
done

# The switch: a bridge with one port towards each namespace.
in_ns "$sw" ip link add br0 type bridge
in_ns "$sw" ip link set br0 up
ip link add srv0 netns "$srv" address "$SERVER_MAC" type veth peer name p-srv netns "$sw"
ip link add vm0 netns "$vm" address "$CLIENT_MAC" type veth peer name p-vm netns "$sw"
for port in p-srv p-vm; do
   in_ns "$sw" ip link set "$port" master br0
   in_ns "$sw" ip link set "$port" up
done
in_ns "$srv" ip addr add "$SERVER_IP/24" dev srv0
in_ns "$srv" ip link set srv0 up
# Checksums computed in software, so that the capture holds them as a NIC
# would have sent them.
in_ns "$srv" ethtool -K srv0 tx off >/dev/null
in_ns "$vm" ethtool -K vm0 tx off >/dev/null
in_ns "$vm" ip link set vm0 up

# The capture on the client's bridge port.
in_ns "$sw" tcpdump -q -n -U -Z root -i p-vm -w "$work/all.pcap" \
   'udp port 67 or udp port 68' 2>"$work/tcpdump.log" &
echo $! >"$work/tcpdump.pid"

# The server: DHCP only (no DNS), one address to hand out, a short lease.
in_ns "$srv" dnsmasq --no-daemon --conf-file=/dev/null --port=0 \
   --interface=srv0 --bind-interfaces --dhcp-authoritative --no-ping \
   --dhcp-range="$CLIENT_IP,$CLIENT_IP,255.255.255.0,$LEASE" \
   --dhcp-option=option:router,"$SERVER_IP" \
   --dhcp-leasefile="$work/dnsmasq.leases" --log-dhcp \
   >"$work/dnsmasq.log" 2>&1 &
echo $! >"$work/dnsmasq.pid"
sleep 2

# The client: a client identifier from its hardware address and a host name,
# as distributions configure it; the configuration script does nothing, the
# exchange is all that is wanted.
cat >"$work/dhclient.conf" <<CONF
send dhcp-client-identifier = hardware;
send host-name = "vm-a";
request subnet-mask, broadcast-address, routers, domain-name-servers;
timeout 15;
CONF
in_ns "$vm" timeout 20 dhclient -d -1 -v -cf "$work/dhclient.conf" \
   -lf "$work/dhclient.leases" -pf "$work/dhclient.pid.file" -sf /bin/true vm0 \
   >"$work/dhclient.log" 2>&1 &
echo $! >"$work/dhclient.pid"

bound=0
for _ in $(seq 1 40); do
   if grep -q "bound to" "$work/dhclient.log" 2>/dev/null; then
      bound=1
      break
   fi
   sleep 0.5
done
sleep 1
kill "$(cat "$work/tcpdump.pid")" 2>/dev/null || true
wait "$(cat "$work/tcpdump.pid")" 2>/dev/null || true
rm -f "$work/tcpdump.pid"

if [ "$bound" != "1" ]; then
   echo "record-captures.sh: the client got no lease" >&2
   cat "$work/dhclient.log" "$work/dnsmasq.log" >&2
   exit 1
fi

mkdir -p "$out"
cp "$work/all.pcap" "$out/dhcp-exchange.pcap"
tcpdump -q -Z root -r "$out/dhcp-exchange.pcap" -w "$out/dhcp-vm-tx.pcap" "ether src $CLIENT_MAC" 2>/dev/null
tcpdump -q -Z root -r "$out/dhcp-exchange.pcap" -w "$out/dhcp-vm-rx.pcap" "not ether src $CLIENT_MAC" 2>/dev/null
chown --reference="$here" "$out" "$out"/dhcp-*.pcap
echo "client: $(grep 'bound to' "$work/dhclient.log")"
tcpdump -n -r "$out/dhcp-exchange.pcap" 2>/dev/null
echo "written: $out/dhcp-exchange.pcap dhcp-vm-tx.pcap dhcp-vm-rx.pcap"
