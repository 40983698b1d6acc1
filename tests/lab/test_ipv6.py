"""IPv6 through the module in vigild's data path, with the real IPv6 stacks
of the VM namespaces: ND bindings learnt from what the stacks send, a rogue
router (radvd) whose advertisements the RA guard stops, and the port white
list judging IPv6 sources.  Addresses come from 2001:db8::/32."""
import shutil

import pytest

from lab import wait_for

A_MAC = "02:00:00:00:06:0a"
B_MAC = "02:00:00:00:06:0b"
A_IP = "2001:db8::a"
B_IP = "2001:db8::b"
ROGUE_PREFIX = "2001:db8:1::/64"
ROUTER_IP = "2001:db8:1::1"

DISC_ND = 0x08
FEAT_PORT_WARDEN = 0x0040
FEAT_RA_GUARD = 0x2000

# Two VM ports, both learning from neighbor discovery.
SWITCH = """
load
portset add vs0
port add vs0 0x20
port add vs0 0x30
prop write 0x20 enabled text:true
prop write 0x30 enabled text:true
discovery6 0x20 nd=1
discovery6 0x30 nd=1
port attach 0x20 p-a
port attach 0x30 p-b
"""


def setup_pair(lab, a_ip=A_IP, b_ip=B_IP):
    """VM A on port 0x20 and VM B on port 0x30, with IPv6 and, when given,
    the addresses a_ip and b_ip (/64) past duplicate address detection."""
    a = lab.vm("a", A_MAC, ipv6=True)
    b = lab.vm("b", B_MAC, ipv6=True)
    lab.start_vigild(SWITCH)
    if a_ip:
        a.add_ip6(f"{a_ip}/64")
    if b_ip:
        b.add_ip6(f"{b_ip}/64")
    a.wait_dad()
    b.wait_dad()
    return a, b


def binding6_of(lab, port, ip):
    for entry in lab.bindings6(port):
        if entry["ip"] == ip:
            return entry
    return None


def test_nd_bindings_from_real_stacks(lab):
    a, b = setup_pair(lab)
    # Duplicate address detection asks from the unspecified address: the
    # addresses were checked through the switch, and nothing is learnt
    # from that.
    assert lab.bindings6(0x20) == [] and lab.bindings6(0x30) == []
    # Each side resolves the other: a solicitation from its own address and
    # an advertisement of it.
    a.ping(B_IP)
    b.ping(A_IP)
    bind_a = wait_for(lambda: binding6_of(lab, 0x20, A_IP), timeout=5, what="A's ND binding")
    bind_b = wait_for(lambda: binding6_of(lab, 0x30, B_IP), timeout=5, what="B's ND binding")
    now = lab.ctl("uptime")["time"]
    for binding, mac in ((bind_a, A_MAC), (bind_b, B_MAC)):
        assert binding["mac"] == mac and binding["vlanId"] == 0, binding
        assert binding["discMethod"] == DISC_ND, binding
        # ND bindings live 10 minutes unless configured otherwise.
        assert now + 590 < binding["expiryTs"] <= now + 601, (binding, now)
    # A port learns only what its own VM claims.
    assert all(e["mac"] == A_MAC for e in lab.bindings6(0x20)), lab.bindings6(0x20)
    assert all(e["mac"] == B_MAC for e in lab.bindings6(0x30)), lab.bindings6(0x30)
    assert lab.bindings(0x20) == [] and lab.bindings(0x30) == []
    # Each new binding is announced.
    added = {}

    def announced():
        for m in lab.messages():
            if m["name"] == "portdb.entry.added":
                added[m["ip"]] = m
        return A_IP in added and B_IP in added

    wait_for(announced, timeout=5, what="portdb.entry.added for both addresses")
    for ip, port, mac in ((A_IP, 0x20, A_MAC), (B_IP, 0x30, B_MAC)):
        m = added[ip]
        assert m["portID"] == port and m["mac"] == mac and not m["isIpv4"], m
        assert m["discMethod"] == DISC_ND and m["vlanId"] == 0, m
    # With ND snooping off, the port's ND bindings go, announced, and no
    # new one comes.
    assert lab.ctl("discovery6", "0x20", "nd=0")["status"] == 0
    wait_for(lambda: binding6_of(lab, 0x20, A_IP) is None, timeout=5,
             what="A's ND binding to go with ND snooping off")
    wait_for(lambda: [m for m in lab.messages()
                      if m["name"] == "portdb.entry.removed" and m["ip"] == A_IP],
             timeout=5, what="portdb.entry.removed for A's address")
    a.ping(B_IP)
    b.ping(A_IP)
    assert lab.bindings6(0x20) == []
    assert lab.ctl("check")["violations"] == []


@pytest.mark.skipif(shutil.which("radvd") is None, reason="radvd is not installed")
def test_rogue_router_stopped_by_the_ra_guard(lab):
    a, r = setup_pair(lab, a_ip=None, b_ip=ROUTER_IP)
    # The router's port drops router advertisements before radvd starts.
    assert lab.ctl("security", "0x30", f"features={FEAT_RA_GUARD:#x}")["status"] == 0
    lab.radvd(r, ROGUE_PREFIX)
    wait_for(lambda: lab.stats(0x30)["statRaGuardDrops"] >= 2, timeout=12,
             what="two router advertisements dropped by the RA guard")
    assert lab.switch_port(0x30)["rxDropped"] >= 2
    # A heard none of them: no address and no route from the prefix.
    assert rogue_addresses(a) == [], a.addresses6()
    routes = a.run("ip", "-6", "route", "show", "dev", "eth0").stdout
    assert "2001:db8:1::" not in routes and "default" not in routes, routes
    # With the guard off, the next advertisement reaches A, which configures
    # an address of the prefix from it (SLAAC) and checks it.
    assert lab.ctl("security", "0x30", "features=0")["status"] == 0
    wait_for(lambda: rogue_addresses(a), timeout=12,
             what="A's SLAAC address from the rogue prefix")
    a.wait_dad()
    assert lab.stats(0x30)["statRaGuardDrops"] == 0
    routes = a.run("ip", "-6", "route", "show", "dev", "eth0").stdout
    assert "2001:db8:1::/64" in routes, routes
    # The address works: A reaches the router's address on the prefix.
    a.ping(ROUTER_IP, count=2)


def rogue_addresses(vm):
    return [ip for ip in vm.addresses6() if ip.startswith("2001:db8:1:")]


# A VM that claims addresses: ICMPv6 echo requests from `src` with the VM's
# own MAC or another, `count` of each, to B.
SPOOF = """
import sys
from scapy.all import Ether, ICMPv6EchoRequest, IPv6, conf, sendp
conf.verb = 0
smac, dmac, src, dst, count = sys.argv[1:6]
frames = [Ether(src=smac, dst=dmac) / IPv6(src=src, dst=dst, hlim=64) /
          ICMPv6EchoRequest(id=0x6d6, seq=i, data=b"vigil-lab") for i in range(int(count))]
sendp(frames, iface="eth0", inter=0.02)
"""


def test_port_warden_with_an_ipv6_white_list(lab):
    a, b = setup_pair(lab)
    # A may use its address and its link-local addresses, from its own MAC.
    white = f"mac={A_MAC},ip={A_IP}/128;mac={A_MAC},ip=fe80::/64"
    answer = lab.ctl("security", "0x20", f"features={FEAT_PORT_WARDEN:#x}", f"port={white}")
    assert answer["status"] == 0
    entries = lab.state(0x20)["portWhiteList"]
    assert [e["ip"] for e in entries] == [A_IP, "fe80::"], entries
    # The allowed address reaches B and B reaches it, both resolving the
    # other: nothing of that is dropped.
    a.ping(B_IP)
    b.ping(A_IP)
    assert lab.stats(0x20)["statWardenV6Drops"] == 0, lab.stats(0x20)
    # The same echo requests from scapy: the allowed source reaches B...
    count = 5
    echoes = b.snmp6("Icmp6InEchos")
    a.python(SPOOF, A_MAC, B_MAC, A_IP, B_IP, count)
    wait_for(lambda: b.snmp6("Icmp6InEchos") - echoes >= count, timeout=5,
             what="B to receive the allowed echo requests")
    # ...a spoofed source does not, nor the allowed one from another MAC:
    # dropped at A's port and counted.
    echoes = b.snmp6("Icmp6InEchos")
    dropped = lab.switch_port(0x20)["rxDropped"]
    a.python(SPOOF, A_MAC, B_MAC, "2001:db8::99", B_IP, count)
    a.python(SPOOF, "02:00:00:00:06:99", B_MAC, A_IP, B_IP, count)
    wait_for(lambda: lab.stats(0x20)["statWardenV6Drops"] >= 2 * count, timeout=5,
             what=f"{2 * count} IPv6 warden drops")
    assert lab.stats(0x20)["statWardenV6Drops"] == 2 * count, lab.stats(0x20)
    assert lab.switch_port(0x20)["rxDropped"] - dropped >= 2 * count
    assert b.snmp6("Icmp6InEchos") == echoes
    # Port B has no white list: its traffic is never judged.
    assert lab.stats(0x30)["statWardenV6Drops"] == 0
    # And the allowed address still works.
    a.ping(B_IP)
    assert lab.ctl("check")["violations"] == []
