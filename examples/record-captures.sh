#!/bin/sh
# Records the DHCP and DHCPv6 exchanges that examples/demo.vsim and the
# scenario tests replay, from real programs: dnsmasq as the server and
# dhclient as the client, in two network namespaces joined through a Linux
# bridge in a third one, the "switch".  tcpdump listens on the bridge port of
# the client, which is where the filter sits on a virtual switch.
#
# Run by hand as root:  sh examples/record-captures.sh [dhcp] [dhcpv6]
# (both when none is named).  It installs dnsmasq, isc-dhcp-client, tcpdump,
# iproute2 and ethtool if missing, uses only addresses of 192.0.2.0/24 and
# 2001:db8::/32, ends within about 30 seconds for each exchange and removes
# everything it made.  Written files:
#   dhcp:
#   examples/captures/dhcp-exchange.pcap  the whole exchange, both directions
#   examples/captures/dhcp-vm-tx.pcap     what the client sent (DISCOVER, REQUEST)
#   examples/captures/dhcp-vm-rx.pcap     what reached the client (OFFER, ACK)
#   dhcpv6 (stateful, one IA_NA, then its release):
#   examples/captures/dhcpv6-exchange.pcap    the lease, both directions
#   examples/captures/dhcpv6-vm-tx.pcap       what the client sent (Solicit, Request)
#   examples/captures/dhcpv6-vm-rx.pcap       what reached it (Advertise, Reply)
#   examples/captures/dhcpv6-release.pcap     the release, both directions
#   examples/captures/dhcpv6-release-tx.pcap  the client's Release
#   examples/captures/dhcpv6-release-rx.pcap  the server's Reply to it
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
SERVER_IP6=2001:db8::1
CLIENT_IP6=2001:db8::50
LEASE=2m   # the shortest lease dnsmasq hands out: 120 seconds

want_dhcp=0
want_dhcpv6=0
[ $# -gt 0 ] || set -- dhcp dhcpv6
for what in "$@"; do
   case "$what" in
      dhcp) want_dhcp=1 ;;
      dhcpv6) want_dhcpv6=1 ;;
      *) echo "usage: record-captures.sh [dhcp] [dhcpv6]" >&2; exit 2 ;;
   esac
done

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

# Stops what the last recording started and removes its namespaces.
teardown() {
   for f in "$work"/*.pid; do
      [ -f "$f" ] && kill "$(cat "$f")" 2>/dev/null || true
      rm -f "$f"
   done
   sleep 0.5
   for ns in "$vm" "$srv" "$sw"; do
      ip netns del "$ns" 2>/dev/null || true
   done
}
cleanup() {
   teardown
   rm -rf "$work"
}
trap cleanup EXIT INT TERM

# (Programs that run in the background are started with "ip netns exec"
# itself, so that $! is their own process.)
in_ns() { ns=$1; shift; ip netns exec "$ns" "$@"; }

# Three namespaces joined by a bridge.  With IPV6=0 they have no IPv6, so
# that only the DHCP exchange is on the wire; with IPV6=1 they have it, no
# temporary addresses and no router solicitations.
make_lab() {
   ipv6=$1
   for ns in "$sw" "$srv" "$vm"; do
      ip netns add "$ns"
      if [ "$ipv6" = "1" ]; then
         in_ns "$ns" sysctl -qw net.ipv6.conf.all.use_tempaddr=0 \
            net.ipv6.conf.default.use_tempaddr=0 \
            net.ipv6.conf.all.router_solicitations=0 \
            net.ipv6.conf.default.router_solicitations=0
      else
         in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
         in_ns "$ns" sysctl -qw net.ipv6.conf.default.disable_ipv6=1
      fi
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
   # Checksums computed in software, so that the capture holds them as a NIC
   # would have sent them.
   in_ns "$srv" ethtool -K srv0 tx off >/dev/null
   in_ns "$vm" ethtool -K vm0 tx off >/dev/null
}

# Starts tcpdump on the client's bridge port, writing FILE with FILTER.
capture() {
   ip netns exec "$sw" tcpdump -q -n -U -Z root -i p-vm -w "$1" "$2" 2>"$work/tcpdump.log" &
   echo $! >"$work/tcpdump.pid"
   sleep 1
}

end_capture() {
   sleep 1
   kill "$(cat "$work/tcpdump.pid")" 2>/dev/null || true
   wait "$(cat "$work/tcpdump.pid")" 2>/dev/null || true
   rm -f "$work/tcpdump.pid"
}

# Waits up to 20 s for PATTERN in FILE; 0 when it came.
wait_log() {
   for _ in $(seq 1 40); do
      grep -q "$1" "$2" 2>/dev/null && return 0
      sleep 0.5
   done
   return 1
}

# Splits FILE.pcap into FILE-tx.pcap (from the client) and FILE-rx.pcap.
split_directions() {
   tcpdump -q -Z root -r "$1" -w "$2" "ether src $CLIENT_MAC" 2>/dev/null
   tcpdump -q -Z root -r "$1" -w "$3" "not ether src $CLIENT_MAC" 2>/dev/null
}

record_dhcp() {
   make_lab 0
   in_ns "$srv" ip addr add "$SERVER_IP/24" dev srv0
   in_ns "$srv" ip link set srv0 up
   in_ns "$vm" ip link set vm0 up

   capture "$work/all.pcap" 'udp port 67 or udp port 68'

   # The server: DHCP only (no DNS), one address to hand out, a short lease.
   ip netns exec "$srv" dnsmasq --no-daemon --conf-file=/dev/null --port=0 \
      --interface=srv0 --bind-interfaces --dhcp-authoritative --no-ping \
      --dhcp-range="$CLIENT_IP,$CLIENT_IP,255.255.255.0,$LEASE" \
      --dhcp-option=option:router,"$SERVER_IP" \
      --dhcp-leasefile="$work/dnsmasq.leases" --log-dhcp \
      >"$work/dnsmasq.log" 2>&1 &
   echo $! >"$work/dnsmasq.pid"
   sleep 2

   # The client: a client identifier from its hardware address and a host
   # name, as distributions configure it; the configuration script does
   # nothing, the exchange is all that is wanted.
   cat >"$work/dhclient.conf" <<CONF
send dhcp-client-identifier = hardware;
send host-name = "vm-a";
request subnet-mask, broadcast-address, routers, domain-name-servers;
timeout 15;
CONF
   ip netns exec "$vm" timeout 20 dhclient -d -1 -v -cf "$work/dhclient.conf" \
      -lf "$work/dhclient.leases" -pf "$work/dhclient.pid.file" -sf /bin/true vm0 \
      >"$work/dhclient.log" 2>&1 &
   echo $! >"$work/dhclient.pid"

   bound=0
   wait_log "bound to" "$work/dhclient.log" && bound=1
   end_capture

   if [ "$bound" != "1" ]; then
      echo "record-captures.sh: the client got no lease" >&2
      cat "$work/dhclient.log" "$work/dnsmasq.log" >&2
      exit 1
   fi

   mkdir -p "$out"
   cp "$work/all.pcap" "$out/dhcp-exchange.pcap"
   split_directions "$out/dhcp-exchange.pcap" "$out/dhcp-vm-tx.pcap" "$out/dhcp-vm-rx.pcap"
   chown --reference="$here" "$out" "$out"/dhcp-*.pcap
   echo "client: $(grep 'bound to' "$work/dhclient.log")"
   tcpdump -n -r "$out/dhcp-exchange.pcap" 2>/dev/null
   echo "written: $out/dhcp-exchange.pcap dhcp-vm-tx.pcap dhcp-vm-rx.pcap"
   teardown
}

# Waits up to 10 s until no IPv6 address of DEV in NS is tentative.
wait_dad() {
   for _ in $(seq 1 20); do
      if ! in_ns "$1" ip -6 addr show dev "$2" | grep -q tentative; then
         return 0
      fi
      sleep 0.5
   done
   echo "record-captures.sh: duplicate address detection did not end on $2" >&2
   exit 1
}

record_dhcpv6() {
   make_lab 1
   in_ns "$srv" ip link set srv0 up
   in_ns "$srv" ip -6 addr add "$SERVER_IP6/64" dev srv0
   in_ns "$vm" ip link set vm0 up
   wait_dad "$srv" srv0
   wait_dad "$vm" vm0

   capture "$work/lease6.pcap" 'udp port 546 or udp port 547'

   # The server: stateful DHCPv6 only (no DNS, no router advertisements),
   # one address to hand out, a short lease (valid and preferred lifetimes).
   ip netns exec "$srv" dnsmasq --no-daemon --conf-file=/dev/null --port=0 \
      --interface=srv0 --bind-interfaces --dhcp-authoritative \
      --dhcp-range="$CLIENT_IP6,$CLIENT_IP6,64,$LEASE" \
      --dhcp-leasefile="$work/dnsmasq6.leases" --log-dhcp \
      >"$work/dnsmasq6.log" 2>&1 &
   echo $! >"$work/dnsmasq6.pid"
   wait_log "DHCPv6, IP range" "$work/dnsmasq6.log" || true

   # The client as distributions run it: one IA_NA, a DUID of its own; the
   # configuration script does nothing, the exchange is all that is wanted.
   printf 'timeout 15;\n' >"$work/dhclient6.conf"
   ip netns exec "$vm" timeout 20 dhclient -6 -d -1 -v -cf "$work/dhclient6.conf" \
      -lf "$work/dhclient6.leases" -pf "$work/dhclient6.pid.file" -sf /bin/true vm0 \
      >"$work/dhclient6.log" 2>&1 &
   echo $! >"$work/dhclient6.pid"

   bound=0
   wait_log "Bound to lease" "$work/dhclient6.log" && bound=1
   end_capture
   kill "$(cat "$work/dhclient6.pid")" 2>/dev/null || true
   wait "$(cat "$work/dhclient6.pid")" 2>/dev/null || true
   rm -f "$work/dhclient6.pid"
   if [ "$bound" != "1" ]; then
      echo "record-captures.sh: the DHCPv6 client got no lease" >&2
      cat "$work/dhclient6.log" "$work/dnsmasq6.log" >&2
      exit 1
   fi

   # The release of that lease, as a capture of its own.
   capture "$work/release6.pcap" 'udp port 546 or udp port 547'
   in_ns "$vm" timeout 15 dhclient -6 -r -v -cf "$work/dhclient6.conf" \
      -lf "$work/dhclient6.leases" -pf "$work/dhclient6.pid.file" -sf /bin/true vm0 \
      >"$work/release6.log" 2>&1 || true
   wait_log "release received" "$work/dnsmasq6.log" || true
   end_capture
   if ! grep -q "DHCPRELEASE" "$work/dnsmasq6.log"; then
      echo "record-captures.sh: the server saw no Release" >&2
      cat "$work/release6.log" "$work/dnsmasq6.log" >&2
      exit 1
   fi

   mkdir -p "$out"
   cp "$work/lease6.pcap" "$out/dhcpv6-exchange.pcap"
   cp "$work/release6.pcap" "$out/dhcpv6-release.pcap"
   split_directions "$out/dhcpv6-exchange.pcap" "$out/dhcpv6-vm-tx.pcap" "$out/dhcpv6-vm-rx.pcap"
   split_directions "$out/dhcpv6-release.pcap" "$out/dhcpv6-release-tx.pcap" \
      "$out/dhcpv6-release-rx.pcap"
   chown --reference="$here" "$out" "$out"/dhcpv6-*.pcap
   echo "client: $(grep 'Bound to lease' "$work/dhclient6.log")"
   tcpdump -n -v -r "$out/dhcpv6-exchange.pcap" 2>/dev/null
   tcpdump -n -v -r "$out/dhcpv6-release.pcap" 2>/dev/null
   echo "written: $out/dhcpv6-exchange.pcap dhcpv6-vm-tx.pcap dhcpv6-vm-rx.pcap" \
      "dhcpv6-release.pcap dhcpv6-release-tx.pcap dhcpv6-release-rx.pcap"
   teardown
}

[ "$want_dhcp" = "0" ] || record_dhcp
[ "$want_dhcpv6" = "0" ] || record_dhcpv6
