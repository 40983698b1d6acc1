"""Real attack tools against a protected port: thc-ipv6, yersinia and dsniff
run in the attacker's namespace, bounded in count and time, while two other
VMs keep a fixed-rate UDP stream going through the same switch.

For each attack the attacker's port is configured as the feature needs; the
test checks that the attack is blocked or bounded as configured and which
counter grows, that the port database stays within its limits, that the
module's heap stays bounded, and that the other ports keep at least 90 % of
their throughput.  The measured figures are printed (pytest -s shows them).

Addresses come from 192.0.2.0/24, 198.51.100.0/24 and 2001:db8::/32 only;
the tools that pick addresses take them from the attacker's interface or
from their arguments.  flood_router26 puts prefixes of its own into the
router advertisements it floods: the RA guard keeps every one of them on the
attacker's port, and the VM that listens for them has IPv6 off."""
import os
import re
import shutil
import time

import pytest

from lab import wait_for

UP_MAC = "02:00:00:00:0a:01"
ATK_MAC = "02:00:00:00:0a:66"
VIC_MAC = "02:00:00:00:0a:20"
X_MAC = "02:00:00:00:0a:30"
Y_MAC = "02:00:00:00:0a:31"

UP_IP = "192.0.2.1"
ATK_IP = "192.0.2.66"
VIC_IP = "192.0.2.20"
X_IP = "198.51.100.10"
Y_IP = "198.51.100.11"
ATK_IP6 = "2001:db8::66"
VIC_IP6 = "2001:db8::20"
UP_IP6 = "2001:db8::1"
ROGUE_PREFIX = "2001:db8:1::/64"

ATK, VIC, X, Y, UP = 0x20, 0x30, 0x40, 0x50, 0x10

FEAT_BPDU_FILTER = 0x0004
FEAT_DHCP_SERVER_BLOCK = 0x0020
FEAT_PORT_WARDEN = 0x0040
FEAT_TX_BCAST_LIMIT = 0x0100
FEAT_TX_MCAST_LIMIT = 0x0200
FEAT_DHCPV6_SERVER_BLOCK = 0x0800
FEAT_RA_GUARD = 0x2000

# The uplink (no filter), the attacker, its victim and the two VMs of the
# stream, all with the filter on.
SWITCH = f"""
load
portset add vs0
port add vs0 {UP:#x}
port add vs0 {ATK:#x}
port add vs0 {VIC:#x}
port add vs0 {X:#x}
port add vs0 {Y:#x}
prop write {ATK:#x} enabled text:true
prop write {VIC:#x} enabled text:true
prop write {X:#x} enabled text:true
prop write {Y:#x} enabled text:true
port attach {UP:#x} p-up
port attach {ATK:#x} p-atk
port attach {VIC:#x} p-vic
port attach {X:#x} p-x
port attach {Y:#x} p-y
"""

# How long each attack runs, and the stream that measures the other ports
# meanwhile: a fixed rate well under what the switch carries.
ATTACK_SECONDS = 3.5
STREAM_SECONDS = 1.5
STREAM_RATE = 300

# The module's heap may grow by this much during one attack: what an attack
# here can make the port keep (15 ND bindings, a few pending requests) fits
# in it many times over.
HEAP_GROWTH_LIMIT = 64 * 1024

# The receiving end of the stream: counts the datagrams of the stream until
# the sender's end mark or its deadline; prints how many came.
STREAM_RECEIVER = """
import socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
s.bind((sys.argv[1], 5002))
deadline = time.monotonic() + float(sys.argv[2])
seen = set()
while time.monotonic() < deadline:
    s.settimeout(max(0.01, deadline - time.monotonic()))
    try:
        data = s.recv(2048)
    except socket.timeout:
        break
    if data.startswith(b"end"):
        break
    seen.add(int(data[:8]))
print(len(seen), flush=True)
"""

# The sending end: `rate` datagrams of 200 bytes a second for `seconds`, each
# at its own time on a fixed schedule; prints how many went and how long.
STREAM_SENDER = """
import socket, sys, time
dst, rate, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
total = int(rate * seconds)
start = time.monotonic()
for i in range(total):
    due = start + i / rate
    wait = due - time.monotonic()
    if wait > 0:
        time.sleep(wait)
    s.sendto(b"%08d" % i + bytes(192), (dst, 5002))
elapsed = time.monotonic() - start
time.sleep(0.3)
for _ in range(5):
    s.sendto(b"end", (dst, 5002))
    time.sleep(0.02)
print(total, elapsed, flush=True)
"""


class Net:
    """The lab of one attack: vigild with five ports, the VMs behind them,
    and what the test measures."""

    def __init__(self, lab, ipv6_attacker=False, ipv6_victim=False, uplink_ip6=False):
        self.lab = lab
        self.up = lab.vm("up", UP_MAC, ip=f"{UP_IP}/24", ipv6=uplink_ip6)
        self.atk = lab.vm("atk", ATK_MAC, ip=f"{ATK_IP}/24", ipv6=ipv6_attacker)
        self.vic = lab.vm("vic", VIC_MAC, ip=f"{VIC_IP}/24", ipv6=ipv6_victim)
        self.x = lab.vm("x", X_MAC, ip=f"{X_IP}/24")
        self.y = lab.vm("y", Y_MAC, ip=f"{Y_IP}/24")
        # The stream doesn't depend on address resolution, which some of the
        # attacks are about.
        self.x.run("ip", "neigh", "replace", Y_IP, "lladdr", Y_MAC, "dev", "eth0", "nud",
                   "permanent")
        self.y.run("ip", "neigh", "replace", X_IP, "lladdr", X_MAC, "dev", "eth0", "nud",
                   "permanent")
        if ipv6_attacker:
            self.atk.add_ip6(f"{ATK_IP6}/64")
        if ipv6_victim:
            self.vic.add_ip6(f"{VIC_IP6}/64")
        if uplink_ip6:
            self.up.add_ip6(f"{UP_IP6}/64")
        lab.start_vigild(SWITCH)
        for vm, ipv6 in ((self.atk, ipv6_attacker), (self.vic, ipv6_victim),
                         (self.up, uplink_ip6)):
            if ipv6:
                vm.wait_dad()
        self.figures = {}

    # ------------------------------------------------------------ the stream
    def stream(self, seconds=STREAM_SECONDS, rate=STREAM_RATE):
        """The fixed-rate stream from X to Y: (sent, received, elapsed)."""
        receiver, log = self.y.spawn_python(STREAM_RECEIVER, Y_IP, seconds + 8,
                                            name="stream-receiver")
        time.sleep(0.3)
        r = self.x.python(STREAM_SENDER, Y_IP, rate, seconds, timeout=seconds + 20)
        receiver.wait(timeout=15)
        sent, elapsed = int(r.stdout.split()[0]), float(r.stdout.split()[1])
        received = int(self.lab.read(log).split()[0])
        return sent, received, elapsed

    def baseline(self):
        """The stream before the attack, on the configured switch."""
        self.base = self.stream()
        sent, received, _ = self.base
        assert received >= 0.95 * sent, f"the stream loses frames without an attack: {self.base}"
        return self.base

    # ------------------------------------------------------------- attacks
    def attack(self, *cmd, seconds=ATTACK_SECONDS, hold_stdin=False):
        """Runs the attack tool in the attacker's namespace for `seconds` at
        most while the stream runs, then stops it; the stream's figures
        during the attack.  With hold_stdin the tool gets a standard input
        that stays open and silent (yersinia stops at the first key)."""
        cmd = tuple(str(word) for word in cmd)
        if hold_stdin:
            cmd = ("sh", "-c", f"sleep {int(seconds) + 30} | exec \"$@\"", "sh") + tuple(cmd)
        proc, _ = self.atk.spawn("timeout", "-s", "KILL", str(seconds), *cmd, name="attack")
        started = time.monotonic()
        time.sleep(0.7)
        self.during = self.stream()
        left = seconds - (time.monotonic() - started)
        if left > 0:
            time.sleep(left)
        self.lab.stop(proc, timeout=5)
        self.settle()
        return self.during

    def settle(self):
        """Waits until the switch has taken in what the attacker's
        interface still held: its frame count stands still."""
        last = [-1]

        def still():
            now = self.lab.switch_port(ATK)["rxFrames"]
            if now == last[0]:
                return True
            last[0] = now
            return False

        wait_for(still, timeout=15, interval=0.3, what="the attacker's port to go quiet")

    def throughput_kept(self):
        """The share of the stream that got through during the attack,
        against the share without it; asserts that it is at least 90 %."""
        b_sent, b_received, b_elapsed = self.base
        d_sent, d_received, d_elapsed = self.during
        base_share = b_received / b_sent
        share = d_received / d_sent
        ratio = share / base_share
        self.figures["stream"] = (f"baseline {b_received}/{b_sent} in {b_elapsed:.2f} s, "
                                  f"during {d_received}/{d_sent} in {d_elapsed:.2f} s")
        self.figures["throughput kept"] = f"{ratio:.3f}"
        self.figures["receive rate kept"] = (
            f"{(d_received / d_elapsed) / (b_received / b_elapsed):.3f}")
        assert ratio >= 0.9, (self.base, self.during)
        return ratio

    # ------------------------------------------------------------ captures
    def capture(self, vm, *expression, direction=None):
        """tcpdump on the VM's eth0 into a file, with a BPF `expression`;
        (process, path).  `direction` "in" or "out" takes only one way."""
        path = os.path.join(self.lab.workdir, f"{vm.name}-{len(self.lab.procs)}.pcap")
        cmd = ["tcpdump", "-n", "-U", "-Z", "root", "-s", "256", "-i", "eth0", "-w", path]
        if direction:
            cmd += ["-Q", direction]
        proc, log = vm.spawn(*cmd, *expression, name="tcpdump")
        wait_for(lambda: proc.poll() is not None or "listening on" in self.lab.read(log),
                 timeout=10, what=f"tcpdump on {vm.name}")
        assert proc.poll() is None, self.lab.read(log)
        return proc, path

    def captured(self, capture):
        """Stops the capture; the frames it got (scapy packets)."""
        from scapy.all import rdpcap
        proc, path = capture
        time.sleep(0.3)
        self.lab.stop(proc)
        return list(rdpcap(path)) if os.path.getsize(path) > 24 else []

    # ----------------------------------------------------------- the module
    def heap(self):
        return self.lab.ctl("heap")

    def databases(self, port):
        """The tables of the port that have a limit, from the database
        table of `vigilctl config`: {name: (in use, limit)}.  The IPv6
        bindings are the ND and DHCPv6 ones together."""
        rows = self.lab.table(self.lab.view("config", f"{port:#x}"), "DATABASE")
        cells = {r["DATABASE"].strip(): (r["IN USE"], r["LIMIT"]) for r in rows}
        nd, dhcp6 = int(cells["ND"][0]), int(cells["DHCPv6"][0])
        cells["IPv6 bindings"] = (str(nd + dhcp6), cells["IPv6 bindings"][1])
        return {name: (int(used), int(limit)) for name, (used, limit) in cells.items()
                if limit}

    def check_bounded(self, port, heap_before):
        """Every table of the port within its limit, the heap's growth
        within HEAP_GROWTH_LIMIT, the tables consistent."""
        tables = self.databases(port)
        for name, (in_use, limit) in tables.items():
            assert in_use <= limit, (name, in_use, limit)
        heap = self.heap()
        growth = heap["inUse"] - heap_before["inUse"]
        self.figures["tables"] = ", ".join(f"{n} {u}/{lim}" for n, (u, lim) in tables.items())
        self.figures["heap"] = (f"in use {heap_before['inUse']} -> {heap['inUse']} B, "
                                f"peak {heap['peak']} B")
        assert growth <= HEAP_GROWTH_LIMIT, (heap_before, heap)
        assert heap["peak"] - heap_before["inUse"] <= HEAP_GROWTH_LIMIT, (heap_before, heap)
        assert self.lab.ctl("check")["violations"] == []
        return tables

    def counter(self, port, name):
        value = self.lab.stats(port)[name]
        self.figures[name] = value
        return value

    def finish(self, title):
        """Prints the figures, then stops vigild: the module unloads with
        nothing leaked."""
        print(f"\n[{title}]")
        for key, value in self.figures.items():
            print(f"  {key}: {value}")
        rc, log = self.lab.stop_vigild()
        assert rc == 0, log[-3000:]
        assert re.search(r"module unloaded: leaks=0 leakBytes=0 framesLive=0 heapsLive=0 ",
                         log), log[-3000:]


def yersinia(lab):
    """yersinia's command with its log in the lab's directory (it writes
    one into the working directory otherwise)."""
    return [tool("yersinia"), "-l", os.path.join(lab.workdir, "yersinia.log")]


def tool(name):
    """The path of an attack tool, or a skip when it is not installed."""
    for candidate in (name, f"atk6-{name}"):
        path = shutil.which(candidate)
        if path:
            return path
    pytest.skip(f"{name} is not installed")


def secure(lab, port, features, *options):
    """Writes the port's security configuration (features and options of
    vigild's security command)."""
    answer = lab.ctl("security", f"{port:#x}", f"features={features:#x}", *options)
    assert answer["status"] == 0, answer


def is_router_advertisement(frame):
    """An RA that a receiving stack could read: the ICMPv6 header in the
    frame, or the first fragment of one (which a stack would reassemble)."""
    from scapy.all import ICMPv6ND_RA, IPv6ExtHdrFragment
    if ICMPv6ND_RA in frame:
        return True
    return IPv6ExtHdrFragment in frame and frame[IPv6ExtHdrFragment].offset == 0


def rogue_routes(vm):
    """What a rogue router left in the VM: addresses from its prefix and
    routes through it."""
    addresses = [ip for ip in vm.addresses6() if ip.startswith("2001:db8:1:")]
    routes = vm.run("ip", "-6", "route", "show", "dev", "eth0").stdout
    return addresses + [line for line in routes.splitlines()
                        if line.startswith(("default", "2001:db8:1:"))]


def test_fake_router6_is_stopped_by_the_ra_guard(lab):
    fake_router6 = tool("fake_router6")
    net = Net(lab, ipv6_attacker=True, ipv6_victim=True)
    secure(lab, ATK, FEAT_RA_GUARD)
    net.baseline()
    heap = net.heap()
    heard = net.vic.snmp6("Icmp6InRouterAdvertisements")
    before = lab.switch_port(ATK)
    net.attack(fake_router6, "eth0", ROGUE_PREFIX)
    drops = net.counter(ATK, "statRaGuardDrops")
    port = lab.switch_port(ATK)
    net.figures["frames dropped at the port"] = port["rxDropped"] - before["rxDropped"]
    # Every advertisement the tool sent was dropped at its port: the victim
    # heard none and took neither an address nor a route from it.
    assert drops >= 1
    assert port["rxDropped"] - before["rxDropped"] == drops
    assert net.vic.snmp6("Icmp6InRouterAdvertisements") == heard
    assert rogue_routes(net.vic) == []
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("fake_router6")


# fake_router26's RA guard evasions: a hop-by-hop header, an atomic fragment,
# a destination header large enough to push the ICMPv6 header into the
# second fragment, the full evasion, and overlapping fragments.  The first
# four are dropped at the port and counted.  The overlapping ones show the
# guard a first fragment whose whole chain ends in an echo request, so a
# guard that keeps no fragment state lets them pass; the host they reach
# discards overlapping fragments, so it hears no advertisement.
EVASIONS = [
    pytest.param("H", True, id="hop-by-hop"),
    pytest.param("1", True, id="atomic-fragment"),
    pytest.param("D", True, id="large-destination-header"),
    pytest.param("F", True, id="full-evasion"),
    pytest.param("O", False, id="overlapping-keep-first"),
    pytest.param("o", False, id="overlapping-keep-last"),
]


@pytest.mark.parametrize("evasion,dropped", EVASIONS)
def test_fake_router26_evasion_is_stopped_by_the_ra_guard(lab, evasion, dropped):
    fake_router26 = tool("fake_router26")
    net = Net(lab, ipv6_attacker=True, ipv6_victim=True)
    secure(lab, ATK, FEAT_RA_GUARD)
    net.baseline()
    heap = net.heap()
    sent = net.capture(net.atk, "ether", "src", ATK_MAC, "and", "ip6", direction="out")
    heard = net.capture(net.vic, "ether", "src", ATK_MAC, "and", "ip6")
    stack_heard = net.vic.snmp6("Icmp6InRouterAdvertisements")
    count = 2
    net.attack(fake_router26, "-E", evasion, "-A", ROGUE_PREFIX, "-n", count, "-i", 1, "eth0",
               seconds=ATTACK_SECONDS + 1)
    sent = [f for f in net.captured(sent) if is_router_advertisement(f)]
    heard = [f for f in net.captured(heard) if is_router_advertisement(f)]
    drops = net.counter(ATK, "statRaGuardDrops")
    net.figures["advertisements sent"] = len(sent)
    net.figures["advertisements heard by the victim"] = len(heard)
    # Each advertisement, however it is dressed, is dropped at the port and
    # counted; the victim receives no part of one that it could reassemble.
    assert len(sent) >= count
    if dropped:
        assert heard == [], [f.summary() for f in heard]
        assert drops >= count
    else:
        # Those of its fragments whose own chain is cut short are dropped;
        # the rest pass.
        assert drops < len(sent)
    assert net.vic.snmp6("Icmp6InRouterAdvertisements") == stack_heard
    assert rogue_routes(net.vic) == []
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish(f"fake_router26 -E {evasion}")


def test_parasite6_neighbor_spoofing_is_dropped_by_the_port_white_list(lab):
    parasite6 = tool("parasite6")
    net = Net(lab, ipv6_attacker=True, ipv6_victim=True)
    link_local = next(iter(net.atk.addresses6(scope="link")))
    white = f"port=mac={ATK_MAC},ip={ATK_IP6}/128;mac={ATK_MAC},ip={link_local}/128"
    secure(lab, ATK, FEAT_PORT_WARDEN, white)
    assert lab.ctl("discovery6", f"{ATK:#x}", "nd=1")["status"] == 0
    net.baseline()
    heap = net.heap()
    heard = net.capture(net.vic, "ether", "src", ATK_MAC, "and", "icmp6")
    # The victim asks for 40 neighbours while parasite6 runs; it claims
    # each of them for the attacker's MAC.
    targets = [f"2001:db8::1:{i:x}" for i in range(40)]
    solicit, _ = net.vic.spawn("sh", "-c", "sleep 1; for t in " + " ".join(targets) +
                               "; do ping -6 -n -c 1 -W 1 -i 0.2 $t >/dev/null & "
                               "sleep 0.05; done; wait", name="solicit")
    net.attack(parasite6, "eth0")
    lab.stop(solicit)
    heard = [f for f in net.captured(heard) if f.haslayer("ICMPv6ND_NA")]
    drops = net.counter(ATK, "statWardenV6Drops")
    net.counter(ATK, "statWardenNdDrops")
    net.figures["spoofed advertisements heard by the victim"] = len(heard)
    # parasite6 answers from the address it claims: each answer is dropped
    # at the attacker's port by the white list, on its source.  The victim
    # heard none, and none of the addresses points at the attacker.
    assert drops >= len(targets)
    assert heard == [], [f.summary() for f in heard]
    neighbours = net.vic.run("ip", "-6", "neigh", "show", "dev", "eth0").stdout.splitlines()
    assert [n for n in neighbours if ATK_MAC in n and n.split()[0] in targets] == []
    # ND snooping learns from what the port sends before the white list
    # judges it: the port's ND table fills up to its limit and no further.
    tables = net.check_bounded(ATK, heap)
    assert tables["ND"][0] == tables["ND"][1], tables
    net.throughput_kept()
    net.finish("parasite6")


def test_flood_router26_is_stopped_by_the_ra_guard(lab):
    flood_router26 = tool("flood_router26")
    # The victim listens with IPv6 off: what it would hear carries prefixes
    # of the tool's own making, and it must configure none of them.
    net = Net(lab, ipv6_attacker=True)
    secure(lab, ATK, FEAT_RA_GUARD)
    net.baseline()
    heap = net.heap()
    heard = net.capture(net.vic, "icmp6")
    before = lab.switch_port(ATK)
    net.attack(flood_router26, "eth0")
    heard = [f for f in net.captured(heard) if is_router_advertisement(f)]
    port = lab.switch_port(ATK)
    arrived = port["rxFrames"] - before["rxFrames"]
    drops = net.counter(ATK, "statRaGuardDrops")
    net.figures["frames from the attacker"] = arrived
    net.figures["socket drops"] = port["rxSocketDrops"] - before["rxSocketDrops"]
    net.figures["advertisements heard by the victim"] = len(heard)
    assert drops > 1000, port
    assert drops >= arrived - 20, (drops, port)
    assert heard == []
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("flood_router26")


def test_flood_dhcpc6_is_bounded_by_the_multicast_limit(lab):
    flood_dhcpc6 = tool("flood_dhcpc6")
    net = Net(lab, ipv6_attacker=True, uplink_ip6=True)
    lab.dnsmasq6(net.up, "2001:db8::1000", "2001:db8::10ff", lease="2m")
    rate = 20
    secure(lab, ATK, FEAT_TX_MCAST_LIMIT, f"txMcast={rate}")
    assert lab.ctl("discovery6", f"{ATK:#x}", "dhcpv6=1")["status"] == 0
    net.baseline()
    heap = net.heap()
    before_up = lab.switch_port(UP)
    before = lab.switch_port(ATK)
    started = time.monotonic()
    net.attack(flood_dhcpc6, "eth0")
    elapsed = time.monotonic() - started
    port = lab.switch_port(ATK)
    passed = (port["rxFrames"] - before["rxFrames"]) - (port["rxDropped"] - before["rxDropped"])
    to_uplink = lab.switch_port(UP)["txFrames"] - before_up["txFrames"]
    drops = net.counter(ATK, "statTxMcastRateDrops")
    net.figures["frames from the attacker"] = port["rxFrames"] - before["rxFrames"]
    net.figures["frames passed"] = passed
    net.figures["frames to the server"] = to_uplink
    # What passed is within the limit (a window may straddle each end of the
    # attack); the rest was dropped by the limiter.
    assert drops > 10 * rate, port
    assert passed <= rate * (elapsed + 2), (passed, elapsed)
    assert to_uplink <= rate * (elapsed + 2), (to_uplink, elapsed)
    tables = net.check_bounded(ATK, heap)
    assert tables["DHCPv6 requests"][0] <= tables["DHCPv6 requests"][1]
    net.throughput_kept()
    net.finish("flood_dhcpc6")


def test_fake_dhcps6_is_dropped_by_the_dhcpv6_server_block(lab):
    fake_dhcps6 = tool("fake_dhcps6")
    net = Net(lab, ipv6_attacker=True, ipv6_victim=True)
    secure(lab, ATK, FEAT_DHCPV6_SERVER_BLOCK)
    net.baseline()
    heap = net.heap()
    lab.dhclient6(net.vic)
    net.attack(fake_dhcps6, "eth0", "2001:db8:5::/64", "2001:db8::53")
    drops = net.counter(ATK, "statDhcpV6ServerBlockDrops")
    log = lab.read(net.vic.dhclient6_log)
    # The fake server answered the victim's solicitations; the answers were
    # dropped at its port, and the victim got no address.
    assert drops >= 1
    assert "RCV: Advertise" not in log and "Bound" not in log, log
    assert not [ip for ip in net.vic.addresses6() if ip.startswith("2001:db8:5:")]
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("fake_dhcps6")


def test_yersinia_dhcp_starvation_is_bounded_by_the_broadcast_limit(lab):
    attack = yersinia(lab)
    net = Net(lab)
    lab.dnsmasq(net.up, "192.0.2.50", "192.0.2.60", lease="2m", router=UP_IP)
    rate = 20
    secure(lab, ATK, FEAT_TX_BCAST_LIMIT, f"txBcast={rate}")
    assert lab.ctl("discovery", f"{ATK:#x}", "dhcp=1")["status"] == 0
    net.baseline()
    heap = net.heap()
    before_up = lab.switch_port(UP)
    before = lab.switch_port(ATK)
    started = time.monotonic()
    net.attack(*attack, "dhcp", "-attack", 1, "-interface", "eth0", hold_stdin=True)
    elapsed = time.monotonic() - started
    port = lab.switch_port(ATK)
    arrived = port["rxFrames"] - before["rxFrames"]
    passed = arrived - (port["rxDropped"] - before["rxDropped"])
    to_uplink = lab.switch_port(UP)["txFrames"] - before_up["txFrames"]
    drops = net.counter(ATK, "statTxBcastRateDrops")
    net.figures["DHCPDISCOVER from the attacker"] = arrived
    net.figures["frames passed"] = passed
    net.figures["frames to the server"] = to_uplink
    assert drops > 10 * rate, port
    assert drops == arrived - passed
    assert passed <= rate * (elapsed + 2), (passed, elapsed)
    assert to_uplink <= rate * (elapsed + 2), (to_uplink, elapsed)
    tables = net.check_bounded(ATK, heap)
    assert tables["DHCP requests"][0] <= tables["DHCP requests"][1]
    net.throughput_kept()
    # The server's pool was not starved: the victim still gets a lease.
    net.vic.run("ip", "-4", "addr", "flush", "dev", "eth0")
    ip = lab.dhclient(net.vic)
    net.figures["victim's lease after the attack"] = ip
    net.finish("yersinia DHCP starvation")


def test_yersinia_rogue_dhcp_server_is_dropped_by_the_server_block(lab):
    attack = yersinia(lab)
    net = Net(lab)
    secure(lab, ATK, FEAT_DHCP_SERVER_BLOCK)
    net.baseline()
    heap = net.heap()
    sent = net.capture(net.atk, "udp", "port", "68", direction="out")
    heard = net.capture(net.vic, "udp", "port", "68")
    # yersinia's command line can't start its rogue server (it needs
    # parameters that only its interactive modes take), so it sends the
    # server's reply itself: each run one reply from 198.51.100.1 to port
    # 68, giving 198.51.100.50 to the victim's hardware address.
    offer = attack + [
        "dhcp", "-attack", "0", "-interface", "eth0", "-source", ATK_MAC,
        "-dest", "ff:ff:ff:ff:ff:ff", "-ipsource", "198.51.100.1", "-ipdest", "255.255.255.255",
        "-sport", "67", "-dport", "68", "-opcode", "2", "-yi", "198.51.100.50",
        "-si", "198.51.100.1", "-ch", VIC_MAC, "-xid", "643C9869"]
    script = "for i in 1 2; do sleep 5 | timeout -s KILL 2.2 \"$@\"; done"
    net.attack("sh", "-c", script, "sh", *offer, seconds=ATTACK_SECONDS + 1)
    sent = net.captured(sent)
    heard = net.captured(heard)
    drops = net.counter(ATK, "statDhcpServerBlockDrops")
    net.figures["server replies sent"] = len(sent)
    net.figures["server replies heard by the victim"] = len(heard)
    assert len(sent) >= 1
    assert drops == len(sent)
    assert heard == []
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("yersinia rogue DHCP server")


def test_yersinia_stp_root_claim_is_dropped_by_the_bpdu_filter(lab):
    attack = yersinia(lab)
    net = Net(lab)
    # The victim is a bridge that runs the spanning tree on its port: it
    # sends its BPDUs, from which yersinia builds a better root's.
    net.vic.run("ip", "addr", "flush", "dev", "eth0")
    net.vic.run("ip", "link", "add", "br0", "type", "bridge", "stp_state", "1",
                "hello_time", "100")
    net.vic.run("ip", "link", "set", "eth0", "master", "br0")
    net.vic.run("ip", "link", "set", "br0", "up")
    bridge_id = net.vic.run("cat", "/sys/class/net/br0/bridge/bridge_id").stdout.strip()
    secure(lab, ATK, FEAT_BPDU_FILTER)
    net.baseline()
    heap = net.heap()
    sent = net.capture(net.atk, "stp", direction="out")
    heard = net.capture(net.vic, "stp", "and", "not", "ether", "src", VIC_MAC)
    before = lab.switch_port(ATK)
    net.attack(*attack, "stp", "-attack", 4, "-interface", "eth0", hold_stdin=True,
               seconds=ATTACK_SECONDS + 1.5)
    sent = net.captured(sent)
    heard = net.captured(heard)
    port = lab.switch_port(ATK)
    drops = net.counter(ATK, "statBpduDrops")
    root = net.vic.run("cat", "/sys/class/net/br0/bridge/root_id").stdout.strip()
    # A claim names a root better than the victim's bridge: a lower
    # priority, or the same one and a lower MAC.
    own = (int(bridge_id.split(".")[0], 16), bridge_id.split(".")[1])
    claims = [f for f in sent
              if (f["STP"].rootid, f["STP"].rootmac.replace(":", "")) < own]
    net.figures["BPDUs sent"] = len(sent)
    net.figures["better root claimed"] = len(claims)
    net.figures["BPDUs heard by the victim"] = len(heard)
    net.figures["victim's root"] = root
    assert len(claims) >= 1
    assert drops == len(sent) == port["rxDropped"] - before["rxDropped"]
    assert heard == []
    # The victim's bridge is still its own root.
    assert root == bridge_id
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("yersinia STP")


def test_arpspoof_is_dropped_by_the_port_white_list(lab):
    arpspoof = tool("arpspoof")
    net = Net(lab)
    # The victim and the uplink know each other before the attack.
    net.vic.ping(UP_IP, count=2)
    secure(lab, ATK, FEAT_PORT_WARDEN, f"port=mac={ATK_MAC},ip={ATK_IP}/32")
    net.baseline()
    heap = net.heap()
    heard = net.capture(net.vic, "arp", "and", "ether", "src", ATK_MAC)
    # Both ways: the victim is told that the uplink's address is at the
    # attacker's MAC, and the uplink that the victim's is.
    net.attack(arpspoof, "-i", "eth0", "-r", "-t", VIC_IP, UP_IP)
    heard = [f for f in net.captured(heard) if f["ARP"].psrc != ATK_IP]
    drops = net.counter(ATK, "statWardenArpDrops")
    net.figures["spoofed replies heard by the victim"] = len(heard)
    assert drops >= 2
    assert heard == []

    def neighbour(vm, ip):
        return vm.run("ip", "neigh", "show", ip, "dev", "eth0").stdout

    assert UP_MAC in neighbour(net.vic, UP_IP)
    assert ATK_MAC not in neighbour(net.vic, UP_IP)
    assert ATK_MAC not in neighbour(net.up, VIC_IP)
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("arpspoof")


def test_macof_mac_flood_is_dropped_by_the_port_white_list(lab):
    macof = tool("macof")
    net = Net(lab)
    secure(lab, ATK, FEAT_PORT_WARDEN, f"port=mac={ATK_MAC},ip={ATK_IP}/32")
    net.baseline()
    heap = net.heap()
    before = lab.switch_port(ATK)
    net.attack(macof, "-i", "eth0", "-s", ATK_IP, "-d", VIC_IP, "-n", 500000)
    port = lab.switch_port(ATK)
    arrived = port["rxFrames"] - before["rxFrames"]
    drops = net.counter(ATK, "statWardenV4Drops")
    net.figures["frames from the attacker"] = arrived
    net.figures["socket drops"] = port["rxSocketDrops"] - before["rxSocketDrops"]
    # Every frame of the flood has a made-up source MAC: none is on the
    # white list, and each one that reached the switch was dropped.
    assert arrived > 1000, port
    assert drops == arrived, (drops, port)
    assert port["rxDropped"] - before["rxDropped"] == arrived
    # The switch learnt none of the made-up addresses.
    fdb = lab.ctl("switch")["fdb"]
    net.figures["switch addresses learnt"] = len(fdb)
    assert all(e["mac"] in (UP_MAC, ATK_MAC, VIC_MAC, X_MAC, Y_MAC) for e in fdb), fdb
    net.check_bounded(ATK, heap)
    net.throughput_kept()
    net.finish("macof")
