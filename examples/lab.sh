#!/bin/sh
# A protected lab by hand: vigild switching three network namespaces, a DHCP
# server and two VMs, with the module guarding the VM ports.
#
#   sh examples/lab.sh up     build if needed, make the lab, lease addresses
#   sh examples/lab.sh down   stop everything and remove what "up" made
#
# Run as root.  Both are idempotent: "up" on a running lab only prints it
# again (and first clears the leftovers of a half-made one), "down" on no lab
# does nothing.  Only addresses of 192.0.2.0/24 are used.
#
# What "up" makes:
#   namespaces  dhcpsrv (dnsmasq on 192.0.2.1), vm1 and vm2 (dhclient)
#   veth pairs  eth0 in each namespace; the other end, in this namespace,
#               is attached to a port of the portset vs0 in vigild:
#               vl-vm1 -> port 0x10 (16), vl-vm2 -> 0x20 (32),
#               vl-dhcp -> 0x30 (48, the uplink, no filter)
#   vigild      in the background, started with $STATE/start.vsim and the
#               policy examples/policy.toml (VIGIL_POLICY names another),
#               its control socket at /run/vigild.sock (vigilctl's default)
#   $STATE      /run/vigil-lab: the start-up script, logs, pid files, leases
#
# VIGILD and VIGILCTL may name other binaries; VIGIL_BUILD another build
# directory (build/default by default).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/.." && pwd)
BUILD=${VIGIL_BUILD:-$top/build/default}
STATE=/run/vigil-lab
POLICY=${VIGIL_POLICY:-$here/policy.toml}
CONTROL=/run/vigild.sock

NAMESPACES="vm1 vm2 dhcpsrv"
HOST_IFS="vl-vm1 vl-vm2 vl-dhcp"
SERVER_IP=192.0.2.1
RANGE_FIRST=192.0.2.50
RANGE_LAST=192.0.2.99
LEASE=2m   # the shortest lease dnsmasq hands out: 120 seconds

usage() {
   echo "usage: sh examples/lab.sh up|down" >&2
   exit 2
}

[ $# -eq 1 ] || usage
case "$1" in up | down) ;; *) usage ;; esac

if [ "$(id -u)" != "0" ]; then
   echo "lab.sh: run as root (it makes network namespaces and veth pairs)" >&2
   exit 1
fi

VIGILD=${VIGILD:-$BUILD/tools/vigild}
VIGILCTL=${VIGILCTL:-$BUILD/tools/vigilctl}

in_ns() { ns=$1; shift; ip netns exec "$ns" "$@"; }
ctl() { "$VIGILCTL" --control "$CONTROL" --timeout 5 "$@"; }

# The pid in FILE if that process is alive and its command line holds TEXT
# (a pid file outlived by its process names nobody else's).
live_pid() {
   [ -f "$1" ] || return 1
   pid=$(cat "$1" 2>/dev/null) || return 1
   [ -n "$pid" ] && [ -r "/proc/$pid/cmdline" ] || return 1
   tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -qF -- "$2" || return 1
   echo "$pid"
}

# Whether PID runs (an ended process that its parent has not reaped yet
# counts as ended).
alive() {
   [ -r "/proc/$1/stat" ] || return 1
   ! sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | grep -q '^[ZX]'
}

# Sends SIGTERM to PID and waits up to SECONDS for it to end; SIGKILL after.
stop_pid() {
   pid=$1
   kill -TERM "$pid" 2>/dev/null || return 0
   i=0
   while alive "$pid"; do
      i=$((i + 1))
      if [ "$i" -gt $(($2 * 10)) ]; then
         echo "  pid $pid did not end after ${2}s: SIGKILL" >&2
         kill -KILL "$pid" 2>/dev/null || true
         sleep 0.2
         return 1
      fi
      sleep 0.1
   done
   return 0
}

down() {
   status=0
   # vigild first, cleanly: it detaches its ports, unloads the module and
   # logs the leak report.
   if pid=$(live_pid "$STATE/vigild.pid" "$STATE/start.vsim"); then
      echo "stopping vigild (pid $pid)"
      stop_pid "$pid" 15 || status=1
      grep "module unloaded" "$STATE/vigild.log" 2>/dev/null | tail -n 1 | sed 's/^/  /' || true
   fi
   # Every program left in the lab's namespaces (dnsmasq, dhclient, and
   # whatever was started there by hand).
   for ns in $NAMESPACES; do
      ip netns list 2>/dev/null | grep -q "^$ns\( \|$\)" || continue
      for pid in $(ip netns pids "$ns" 2>/dev/null); do
         echo "stopping $(cat "/proc/$pid/comm" 2>/dev/null || echo '?') (pid $pid) in $ns"
         stop_pid "$pid" 5 || true
      done
   done
   for ns in $NAMESPACES; do
      if ip netns list 2>/dev/null | grep -q "^$ns\( \|$\)"; then
         ip netns del "$ns" && echo "removed namespace $ns"
      fi
   done
   # Deleting a namespace deletes its veth ends and with them their peers
   # (a moment later); these are only left after a half-made "up".
   for ifname in $HOST_IFS; do
      i=0
      while [ "$i" -lt 20 ] && ip link show "$ifname" >/dev/null 2>&1; do
         i=$((i + 1))
         sleep 0.1
      done
      if ip link show "$ifname" >/dev/null 2>&1; then
         ip link del "$ifname" 2>/dev/null && echo "removed interface $ifname"
      fi
   done
   # A socket left by a vigild that died (a live one is never removed).
   if [ -S "$CONTROL" ] && ! ctl uptime >/dev/null 2>&1; then
      rm -f "$CONTROL"
   fi
   if [ -d "$STATE" ]; then
      rm -rf "$STATE"
      echo "removed $STATE"
   fi
   return $status
}

show() {
   ctl_note=""
   if [ "$(command -v vigilctl 2>/dev/null)" != "$VIGILCTL" ]; then
      ctl_note="(vigilctl is $VIGILCTL)"
   fi
   cat <<EOF

The lab is up.
  vigild       pid $(cat "$STATE/vigild.pid"), control socket $CONTROL, log $STATE/vigild.log
  portset vs0  port 0x10 (16)  vl-vm1  <-> vm1 eth0  $(lease_of vm1)
               port 0x20 (32)  vl-vm2  <-> vm2 eth0  $(lease_of vm2)
               port 0x30 (48)  vl-dhcp <-> dhcpsrv eth0  $SERVER_IP (dnsmasq, $RANGE_FIRST-$RANGE_LAST, 120 s leases)
  VM ports     as the policy $POLICY says: DHCP and ARP discovery, the port
               warden with the white list the agent keeps from each lease,
               DHCP and DHCPv6 server block, RA guard, BPDU filter, at most
               100 broadcasts a second from the VM
  state        $STATE (start.vsim, logs, leases)

Try:
  vigilctl state 16           # vm1's port: its DHCP binding, lease, counters
  vigilctl --text state 16    # the same as tables
  ip netns exec vm1 ping -c 3 $SERVER_IP
  ip netns exec vm1 ping -c 3 $(lease_of vm2 | sed 's,/.*,,')    # vm2, through the switch
  vigilctl messages           # portset messages: portdb.entry.added, ...
  vigilctl switch             # attached ports, their counters, learnt addresses
  vigilctl --text whitelist 16   # vm1's white list: its lease, written by the agent
  vigilctl --text policy 16      # the policy in force on port 16
  vigilctl agent                 # the agent's writes, admissions, conflicts
  ip netns exec vm1 ip addr add 192.0.2.200/24 dev eth0
  ip netns exec vm1 ping -c 3 -I 192.0.2.200 $SERVER_IP   # not vm1's: dropped
  kill -HUP $(cat "$STATE/vigild.pid")   # read the policy again
  sh $here/lab.sh down
$ctl_note
EOF
}

lease_of() {
   addr=$(in_ns "$1" ip -4 -o addr show dev eth0 scope global 2>/dev/null | awk '{print $4}' | head -n 1)
   echo "${addr:-no address}"
}

up() {
   if live_pid "$STATE/vigild.pid" "$STATE/start.vsim" >/dev/null && ctl uptime >/dev/null 2>&1; then
      echo "the lab is already up"
      show
      return 0
   fi
   # Leftovers of a half-made lab go first.
   if [ -d "$STATE" ]; then
      echo "clearing what a previous lab left"
      down || true
   fi
   for ns in $NAMESPACES; do
      if ip netns list 2>/dev/null | grep -q "^$ns\( \|$\)"; then
         echo "lab.sh: a namespace $ns exists; 'sh examples/lab.sh down' removes it" >&2
         exit 1
      fi
   done
   if [ -S "$CONTROL" ] && ctl uptime >/dev/null 2>&1; then
      echo "lab.sh: another vigild answers on $CONTROL" >&2
      exit 1
   fi

   need=""
   command -v dnsmasq >/dev/null 2>&1 || need="$need dnsmasq"
   command -v dhclient >/dev/null 2>&1 || need="$need isc-dhcp-client"
   command -v ethtool >/dev/null 2>&1 || need="$need ethtool"
   if [ -n "$need" ]; then
      echo "installing:$need"
      export DEBIAN_FRONTEND=noninteractive
      apt-get update -qq >/dev/null
      # shellcheck disable=SC2086
      apt-get install -y -qq --no-install-recommends $need >/dev/null
   fi

   # vigild and vigilctl: brought up to date in the build directory, which
   # is configured first when there is none.
   if [ ! -x "$VIGILD" ] || [ ! -x "$VIGILCTL" ] || [ -f "$BUILD/build.ninja" ]; then
      if [ ! -f "$BUILD/CMakeCache.txt" ]; then
         echo "configuring $BUILD"
         cmake -S "$top" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Debug >/dev/null
      fi
      echo "building vigild and vigilctl in $BUILD"
      cmake --build "$BUILD" --target vigild vigilctl >"/tmp/vigil-lab-build.$$.log" 2>&1 || {
         cat "/tmp/vigil-lab-build.$$.log" >&2
         rm -f "/tmp/vigil-lab-build.$$.log"
         exit 1
      }
      rm -f "/tmp/vigil-lab-build.$$.log"
   fi

   mkdir -p "$STATE"
   chmod 700 "$STATE"
   # From here on, a failure takes down what was made.
   trap 'echo "lab.sh: up failed, removing what it made" >&2; down >/dev/null 2>&1 || true' EXIT

   # Three namespaces, IPv4 only, each with eth0 whose peer stays here.
   for spec in "dhcpsrv vl-dhcp 02:00:00:00:01:01" "vm1 vl-vm1 02:00:00:00:02:01" \
               "vm2 vl-vm2 02:00:00:00:02:02"; do
      # shellcheck disable=SC2086
      set -- $spec
      ip netns add "$1"
      in_ns "$1" ip link set lo up
      in_ns "$1" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
      in_ns "$1" sysctl -qw net.ipv6.conf.default.disable_ipv6=1
      ip link add "$2" type veth peer name eth0 netns "$1" address "$3"
      # The switch end carries no address of its own and says nothing.
      sysctl -qw "net.ipv6.conf.$2.disable_ipv6=1" 2>/dev/null || true
      ip link set "$2" up
      # A switch port carries frames of the link's size.
      in_ns "$1" ethtool -K eth0 tso off gso off >/dev/null 2>&1 || true
      in_ns "$1" ip link set eth0 up
      echo "made namespace $1: eth0 $3, switch end $2"
   done
   in_ns dhcpsrv ip addr add "$SERVER_IP/24" dev eth0

   # vigild and its start-up script.
   cat >"$STATE/start.vsim" <<'EOF'
# The lab's switch: one portset, two VM ports and the uplink towards the
# DHCP server.  What the module does on the VM ports comes from the policy
# (examples/policy.toml), which vigild applies once this script has run.
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x30
port attach 0x10 vl-vm1
port attach 0x20 vl-vm2
port attach 0x30 vl-dhcp
EOF
   # In its own session, so that it outlives this shell and its terminal.
   # shellcheck disable=SC2016
   setsid sh -c 'echo $$ >"$1"; shift; exec "$@"' sh "$STATE/vigild.pid" \
      "$VIGILD" --script "$STATE/start.vsim" --stop-on-error --control "$CONTROL" \
      --policy "$POLICY" --state-dir "$STATE/agent" \
      </dev/null >"$STATE/vigild.log" 2>&1 &
   i=0
   until ctl uptime >/dev/null 2>&1; do
      i=$((i + 1))
      if [ "$i" -gt 100 ] || { [ -s "$STATE/vigild.pid" ] &&
                               ! kill -0 "$(cat "$STATE/vigild.pid")" 2>/dev/null; }; then
         echo "lab.sh: vigild did not come up:" >&2
         cat "$STATE/vigild.log" >&2
         exit 1
      fi
      sleep 0.2
   done
   echo "started vigild (pid $(cat "$STATE/vigild.pid")), control socket $CONTROL"

   # The DHCP server: DHCP only (no DNS), short leases, in the background.
   in_ns dhcpsrv dnsmasq --conf-file=/dev/null --port=0 --interface=eth0 \
      --bind-interfaces --dhcp-authoritative --no-ping --user=root --group=root \
      --pid-file="$STATE/dnsmasq.pid" --log-facility="$STATE/dnsmasq.log" \
      --dhcp-range="$RANGE_FIRST,$RANGE_LAST,255.255.255.0,$LEASE" \
      --dhcp-option=option:router,"$SERVER_IP" \
      --dhcp-leasefile="$STATE/dnsmasq.leases" --log-dhcp
   echo "started dnsmasq in dhcpsrv ($SERVER_IP, $RANGE_FIRST-$RANGE_LAST, 120 s leases)"

   # The clients: dhclient stays in the background and renews; the script
   # it runs sets the address and nothing else (no resolv.conf, no routes).
   cat >"$STATE/dhclient-script" <<'EOF'
#!/bin/sh
case "$reason" in
BOUND|RENEW|REBIND|REBOOT)
   if [ "$old_ip_address" != "$new_ip_address" ]; then
      ip -4 addr flush dev "$interface" scope global
      ip addr add "$new_ip_address/$new_subnet_mask" dev "$interface"
   fi ;;
EXPIRE|FAIL|RELEASE|STOP)
   ip -4 addr flush dev "$interface" scope global ;;
esac
exit 0
EOF
   chmod 755 "$STATE/dhclient-script"
   trap - EXIT
   for vm in vm1 vm2; do
      cat >"$STATE/dhclient-$vm.conf" <<EOF
send dhcp-client-identifier = hardware;
send host-name = "$vm";
request subnet-mask, broadcast-address, routers;
timeout 15;
retry 5;
initial-interval 1;
EOF
      if in_ns "$vm" timeout 25 dhclient -1 -v -cf "$STATE/dhclient-$vm.conf" \
            -lf "$STATE/dhclient-$vm.leases" -pf "$STATE/dhclient-$vm.pid" \
            -sf "$STATE/dhclient-script" eth0 >"$STATE/dhclient-$vm.log" 2>&1; then
         echo "$vm: $(grep 'bound to' "$STATE/dhclient-$vm.log" | tail -n 1)"
      else
         echo "$vm: no lease (see $STATE/dhclient-$vm.log); the lab stays up" >&2
      fi
   done
   show
}

"$1"
