#!/bin/sh
# Records the answers of answers/*.json from a vigild of a build: a port
# (0x10) with DHCP, ARP and DHCPv6 bindings, a white list, an ignore list and
# the BPDU filter, a port (0x20) with a filter and nothing else, a port
# (0x30) without one.  No interface is attached: it needs no root.
# Usage: record-answers.sh VIGILD VIGILCTL [OUTDIR]
set -eu
VIGILD=$1
VIGILCTL=$2
here=$(cd "$(dirname "$0")" && pwd)
out=${3:-$here/answers}
top=$(cd "$here/../../.." && pwd)
work=$(mktemp -d)
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$work"' EXIT
cat > "$work/start.vsim" <<'SCRIPT'
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x30
prop write 0x10 enabled text:true
prop write 0x20 enabled text:true
discovery 0x10 dhcp=1 arp=1
discovery6 0x10 nd=1 dhcpv6=1
discovery 0x20 dhcp=1 arp=1
security 0x10 features=0x2975 txBcast=100 rxMcast=50 switch=ip=198.51.100.0/24 port=mac=02:00:00:00:00:10,ip=192.0.2.50;vlan=5,ip=2001:db8::/64 bpduExclude=01:80:c2:00:00:00
ignorelist 0x10 ip=192.0.2.99;mac=02:00:00:00:00:99,ip=2001:db8::99
SCRIPT
"$VIGILD" --script "$work/start.vsim" --control "$work/ctl.sock" >"$work/vigild.log" 2>&1 &
pid=$!
export VIGILD_CONTROL="$work/ctl.sock"
i=0
until "$VIGILCTL" uptime >/dev/null 2>&1; do
   i=$((i + 1))
   [ $i -lt 100 ] || { cat "$work/vigild.log"; exit 1; }
   sleep 0.1
done
ctl() { "$VIGILCTL" "$@" >/dev/null; }
ctl tx 0x10 dhcp:type=request,xid=0x1060
ctl rx 0x10 dhcp:type=ack,xid=0x1060,yiaddr=192.0.2.60,lease=300
ctl tx 0x10 arp:spa=192.0.2.51,tpa=192.0.2.51
ctl replay 0x10 tx "$top/examples/captures/dhcpv6-vm-tx.pcap"
ctl replay 0x10 rx "$top/examples/captures/dhcpv6-vm-rx.pcap"
ctl tx 0x10 udp4:sip=192.0.2.77
ctl tx 0x10 udp4:sip=192.0.2.78
mkdir -p "$out"
rec() { name=$1; shift; "$VIGILCTL" "$@" >"$out/$name.json" || true; }
rec listVmi mgmt listVmi switch=vs0 port=16 raw=0
rec listV6Vmi mgmt listV6Vmi switch=vs0 port=16 raw=0
rec listVmi-empty mgmt listVmi switch=vs0 port=32 raw=0
rec listVmi-nofilter mgmt listVmi switch=vs0 port=48 raw=0
rec getConfig mgmt getConfig switch=vs0 port=16 raw=0
rec getConfig-plain mgmt getConfig switch=vs0 port=32 raw=0
rec getStatsBatch mgmt getStatsBatch ports=vs0/16,vs0/32,vs0/48 raw=0
rec getWhiteList mgmt getWhiteList switch=vs0 port=16 raw=0
rec getWhiteList-empty mgmt getWhiteList switch=vs0 port=32 raw=0
rec getIgnoreList mgmt getIgnoreList switch=vs0 port=16 raw=0
rec getFilteredBpduMacs mgmt getFilteredBpduMacs switch=vs0 port=16 raw=0
rec getFilteredBpduMacs-off mgmt getFilteredBpduMacs switch=vs0 port=32 raw=0
rec delVmi mgmt delVmi switch=vs0 port=16 op=3 methods=2 raw=0
rec events events after=0
"$VIGILCTL" stop >/dev/null
wait "$pid"
