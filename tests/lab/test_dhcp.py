"""The module in vigild's data path with real clients and servers: DHCP
leases snooped into bindings, ARP bindings from a real stack, the port white
list, the DHCP server block, broadcast rate limits under a flood, and
property writes while traffic flows."""
import os
import shutil
import signal
import threading
import time

import pytest

from lab import LabError, wait_for
from test_switch import tcp_transfer

UPLINK_MAC = "02:00:00:00:01:01"
A_MAC = "02:00:00:00:02:0a"
B_MAC = "02:00:00:00:02:0b"

SWITCH = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x30
prop write 0x20 enabled text:true
prop write 0x30 enabled text:true
discovery 0x20 dhcp=1 arp=1
discovery 0x30 dhcp=1 arp=1
port attach 0x10 p-up
port attach 0x20 p-a
port attach 0x30 p-b
"""


def setup_lan(lab, server=True):
    """The uplink with dnsmasq (192.0.2.1, leases 192.0.2.50-60 for 120 s),
    VM A and VM B, and vigild switching them."""
    up = lab.vm("up", UPLINK_MAC, ip="192.0.2.1/24")
    a = lab.vm("a", A_MAC)
    b = lab.vm("b", B_MAC)
    lab.start_vigild(SWITCH)
    if server:
        lab.dnsmasq(up, "192.0.2.50", "192.0.2.60", lease="2m", router="192.0.2.1")
    return up, a, b


def binding_of(lab, port, ip):
    for entry in lab.bindings(port):
        if entry["ip"] == ip:
            return entry
    return None


def test_dhclient_lease_binding_messages_and_release(lab):
    up, a, b = setup_lan(lab)
    ip = lab.dhclient(a)
    assert ip.startswith("192.0.2.")
    binding = wait_for(lambda: binding_of(lab, 0x20, ip), timeout=5, what="the DHCP binding")
    assert binding["mac"] == A_MAC
    assert binding["discMethod"] == 1
    assert binding["leaseTime"] == 120
    assert binding["serverIp"] == "192.0.2.1"
    assert binding["clientMac"] == A_MAC
    now = lab.ctl("uptime")["time"]
    assert now < binding["expiryTs"] <= now + 121
    added = wait_for(lambda: [m for m in lab.messages()
                              if m["name"] == "portdb.entry.added" and m["ip"] == ip],
                     timeout=5, what="portdb.entry.added")
    assert added[0]["portID"] == 0x20 and added[0]["mac"] == A_MAC and added[0]["bound"] == 1
    # The leased address works through the switch.
    a.ping("192.0.2.1")
    # A release ends the binding, and the removal is announced.
    lab.dhclient_release(a)
    wait_for(lambda: binding_of(lab, 0x20, ip) is None, timeout=5, what="the binding to go")
    removed = wait_for(lambda: [m for m in lab.messages()
                                if m["name"] == "portdb.entry.removed" and m["ip"] == ip],
                       timeout=5, what="portdb.entry.removed")
    assert removed[0]["portID"] == 0x20
    # Port B saw none of it as its own.
    assert lab.bindings(0x30) == []
    assert lab.ctl("check")["violations"] == []


@pytest.mark.skipif(shutil.which("dhcpcd") is None, reason="dhcpcd is not installed")
def test_dhcpcd_lease_binding_and_release(lab):
    up, a, b = setup_lan(lab)
    conf = f"{lab.workdir}/dhcpcd.conf"
    with open(conf, "w") as f:
        f.write("ipv4only\nnoipv4ll\nnoarp\noption subnet_mask, routers\n")
    # dhcpcd keeps its leases and sockets under /var/lib/dhcpcd and
    # /run/dhcpcd: in the mount namespace that "ip netns exec" makes for it,
    # a directory of this test goes over the one and a fresh /run over the
    # other.
    lib = f"{lab.workdir}/dhcpcd-lib"
    os.makedirs(lib, exist_ok=True)
    script = ("mount -t tmpfs vl-run /run && "
              "{ [ ! -d /var/lib/dhcpcd ] || mount --bind " + lib + " /var/lib/dhcpcd; } && "
              f"exec dhcpcd -f {conf} -c /bin/true -4 -B -d -t 20 eth0")
    proc, log = b.spawn("sh", "-c", script, name="dhcpcd")
    lease = wait_for(lambda: [e for e in lab.bindings(0x30) if e["discMethod"] == 1],
                     timeout=20, what="dhcpcd's binding")
    ip = lease[0]["ip"]
    assert lease[0]["mac"] == B_MAC and lease[0]["leaseTime"] == 120
    wait_for(lambda: [m for m in lab.messages()
                      if m["name"] == "portdb.entry.added" and m["ip"] == ip],
             timeout=5, what="portdb.entry.added")
    wait_for(lambda: ip in b.run("ip", "-4", "addr", "show", "eth0").stdout, timeout=10,
             what="dhcpcd to set the address")
    b.ping("192.0.2.1")
    # SIGALRM: dhcpcd releases its lease and ends.
    os.kill(proc.pid, signal.SIGALRM)
    proc.wait(timeout=10)
    wait_for(lambda: binding_of(lab, 0x30, ip) is None, timeout=10,
             what=f"the release:\n{lab.read(log)}")


def test_arp_bindings_from_a_real_stack(lab):
    up, a, b = setup_lan(lab, server=False)
    a.add_ip("192.0.2.20/24")
    b.add_ip("192.0.2.21/24")
    a.ping(b.ip)
    bind_a = wait_for(lambda: binding_of(lab, 0x20, "192.0.2.20"), timeout=5, what="A's binding")
    bind_b = wait_for(lambda: binding_of(lab, 0x30, "192.0.2.21"), timeout=5, what="B's binding")
    assert bind_a["discMethod"] == 2 and bind_a["mac"] == A_MAC
    assert bind_b["discMethod"] == 2 and bind_b["mac"] == B_MAC
    names = [(m["name"], m["ip"]) for m in lab.messages()]
    assert ("portdb.entry.added", "192.0.2.20") in names
    assert ("portdb.entry.added", "192.0.2.21") in names


def test_port_white_list_drops_spoofed_sources(lab):
    up, a, b = setup_lan(lab, server=False)
    a.add_ip("192.0.2.20/24")
    a.add_ip("192.0.2.99/24")  # not A's to use
    b.add_ip("192.0.2.21/24")
    lab.ctl("security", "0x20", "features=0x40", "port=mac=" + A_MAC + ",ip=192.0.2.20/32")
    # Allowed traffic passes both ways: ping and a short TCP transfer.
    a.ping(b.ip)
    b.ping("192.0.2.20")
    tcp_transfer(lab, b, a, 300_000)
    tcp_transfer(lab, a, b, 300_000)
    before = lab.stats(0x20)["statWardenV4Drops"]
    # From the address outside the list: dropped and counted.
    assert not a.ping(b.ip, src="192.0.2.99", count=3, check=False)
    drops = lab.stats(0x20)["statWardenV4Drops"] - before
    assert drops >= 3, lab.stats(0x20)
    assert lab.switch_port(0x20)["rxDropped"] >= 3
    # And the allowed address still works.
    a.ping(b.ip)


def test_rogue_dhcp_server_blocked_only_when_the_block_is_on(lab):
    up, a, b = setup_lan(lab, server=False)
    b.add_ip("198.51.100.1/24")
    lab.dnsmasq(b, "198.51.100.50", "198.51.100.60", lease="2m", name="rogue")
    lab.ctl("security", "0x30", "features=0x20")
    assert lab.dhclient(a, timeout=25, expect=False) is None
    assert lab.stats(0x30)["statDhcpServerBlockDrops"] >= 1
    assert lab.bindings(0x20) == []
    # With the block off, the rogue server's offer reaches A.
    lab.ctl("security", "0x30", "features=0")
    ip = lab.dhclient(a, timeout=20)
    assert ip.startswith("198.51.100.")
    wait_for(lambda: binding_of(lab, 0x20, ip), timeout=5, what="the rogue lease's binding")


# A broadcast flood: one ARP request built by scapy, sent `count` times on a
# packet socket, for at most `seconds`.  Prints how many went and how long it
# took.
FLOOD = """
import socket, sys, time
from scapy.all import ARP, Ether, raw
mac, count, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
frame = raw(Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") /
            ARP(op=1, hwsrc=mac, psrc="192.0.2.66", pdst="192.0.2.77"))
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind(("eth0", 0))
start = time.monotonic(); sent = 0
while sent < count and time.monotonic() - start < seconds:
    try:
        s.send(frame); sent += 1
    except BlockingIOError:
        time.sleep(0.001)
print(sent, time.monotonic() - start)
"""


def test_broadcast_flood_is_cut_and_the_other_vm_keeps_working(lab):
    up, a, b = setup_lan(lab)
    ip = lab.dhclient(a)
    wait_for(lambda: binding_of(lab, 0x20, ip), timeout=5, what="A's binding")
    rate = 50
    lab.ctl("security", "0x30", "features=0x100", f"txBcast={rate}")
    rx_before = lab.switch_port(0x10)["txFrames"]
    pings = {}

    def ping_during_flood():
        r = a.run("ping", "-n", "-q", "-c", "15", "-i", "0.2", "-W", "1", "192.0.2.1",
                  timeout=20, check=False)
        pings["out"] = r.stdout

    pinger = threading.Thread(target=ping_during_flood)
    pinger.start()
    r = b.python(FLOOD, B_MAC, 200000, 3.0, timeout=20)
    pinger.join(timeout=25)
    sent, elapsed = int(r.stdout.split()[0]), float(r.stdout.split()[1])
    assert sent > 5 * rate * (elapsed + 1), f"the flood was too thin to tell: {r.stdout}"
    stats = lab.stats(0x30)
    port_b = lab.switch_port(0x30)
    passed = port_b["rxFrames"] - port_b["rxDropped"]
    # What passed B's input is within the rate (a window may straddle the
    # flood's start and end), and the rest was dropped by the limiter.
    assert passed <= rate * (elapsed + 2) + 20, (port_b, stats)
    assert stats["statTxBcastRateDrops"] >= port_b["rxFrames"] - passed - 5
    assert stats["statTxBcastRateDrops"] > 0
    # The uplink got no more than what passed.
    assert lab.switch_port(0x10)["txFrames"] - rx_before <= passed + 100
    # A kept its connectivity during the flood, and its lease.
    received = int(pings["out"].split(" received")[0].split()[-1])
    assert received >= 12, pings["out"]
    assert binding_of(lab, 0x20, ip) is not None
    assert a.dhclient.poll() is None
    a.ping("192.0.2.1")


def test_property_writes_while_traffic_flows(lab):
    up, a, b = setup_lan(lab, server=False)
    a.add_ip("192.0.2.20/24")
    b.add_ip("192.0.2.21/24")
    errors = []

    def transfer():
        try:
            # About 3 s of traffic: 4 MB in 64 KiB pieces with short pauses.
            tcp_transfer(lab, b, a, 4_000_000, pause=0.04, timeout=40)
        except (AssertionError, LabError) as e:
            errors.append(e)

    worker = threading.Thread(target=transfer)
    worker.start()
    writes = 0
    deadline = time.monotonic() + 30
    while worker.is_alive() and time.monotonic() < deadline:
        white = "port=mac=" + A_MAC + ",ip=192.0.2.20/32"
        for cmd in (("security", "0x20", "features=0x140", "txBcast=100", white),
                    ("discovery", "0x20", "dhcp=1", "arp=1"),
                    ("security", "0x30", "features=0x20"),
                    ("security", "0x20", "features=0"),
                    ("discovery", "0x30", "dhcp=1", "arp=0")):
            assert lab.ctl(*cmd)["status"] == 0
            writes += 1
    worker.join(timeout=40)
    assert not errors, errors
    assert writes >= 10
    assert lab.ctl("check")["violations"] == []
    a.ping(b.ip)
