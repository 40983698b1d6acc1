"""DHCPv6 snooping in vigild's data path with real programs: dnsmasq serving
stateful DHCPv6 behind the uplink, dhclient -6 and dhcpcd as clients in VM
namespaces whose leases become bindings with their lifetimes and end with
their release, and a rogue dnsmasq in a VM namespace stopped by the DHCPv6
server block.  Addresses come from 2001:db8::/32."""
import ipaddress
import os
import shutil
import signal

import pytest

from lab import wait_for

UPLINK_MAC = "02:00:00:00:16:01"
A_MAC = "02:00:00:00:16:0a"
B_MAC = "02:00:00:00:16:0b"
SERVER_IP = "2001:db8::1"
RANGE = ("2001:db8::100", "2001:db8::1ff")
ROGUE_IP = "2001:db8:1::1"
ROGUE_RANGE = ("2001:db8:1::100", "2001:db8:1::1ff")
LEASE = 120  # dnsmasq's shortest: valid and preferred lifetimes alike

DISC_DHCPV6 = 0x10
FEAT_DHCPV6_SERVER_BLOCK = 0x0800

# The uplink (no filter) and two VM ports snooping DHCPv6 only, so that the
# IPv6 lists hold nothing but the leases.
SWITCH = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x30
prop write 0x20 enabled text:true
prop write 0x30 enabled text:true
discovery6 0x20 nd=0 dhcpv6=1
discovery6 0x30 nd=0 dhcpv6=1
port attach 0x10 p-up
port attach 0x20 p-a
port attach 0x30 p-b
"""


def setup_lan(lab, server=True):
    """The uplink with dnsmasq (2001:db8::1, stateful DHCPv6 from
    2001:db8::100-1ff for 120 s), VM A and VM B with IPv6, and vigild
    switching them; every link-local address past duplicate address
    detection."""
    up = lab.vm("up", UPLINK_MAC, ipv6=True)
    a = lab.vm("a", A_MAC, ipv6=True)
    b = lab.vm("b", B_MAC, ipv6=True)
    lab.start_vigild(SWITCH)
    up.add_ip6(f"{SERVER_IP}/64")
    for vm in (up, a, b):
        vm.wait_dad()
    if server:
        lab.dnsmasq6(up, *RANGE)
    return up, a, b


def in_range(ip, first, last):
    return (ipaddress.IPv6Address(first) <= ipaddress.IPv6Address(ip)
            <= ipaddress.IPv6Address(last))


def binding6_of(lab, port, ip):
    for entry in lab.bindings6(port):
        if entry["ip"] == ip:
            return entry
    return None


def check_lease_binding(lab, port, mac, ip):
    """The DHCPv6 binding of `ip` on `port` with the lease's lifetimes, and
    its portdb.entry.added message with bound 1."""
    binding = wait_for(lambda: binding6_of(lab, port, ip), timeout=5,
                       what=f"the DHCPv6 binding of {ip}")
    assert binding["mac"] == mac and binding["vlanId"] == 0, binding
    assert binding["discMethod"] == DISC_DHCPV6, binding
    assert binding["validLifetime"] == LEASE, binding
    assert binding["preferredLifetime"] == LEASE, binding
    now = lab.ctl("uptime")["time"]
    assert now < binding["expiryTs"] <= now + LEASE + 1, (binding, now)
    added = wait_for(lambda: [m for m in lab.messages_seen + lab.messages()
                              if m["name"] == "portdb.entry.added" and m["ip"] == ip],
                     timeout=5, what=f"portdb.entry.added for {ip}")
    m = added[0]
    assert m["portID"] == port and m["mac"] == mac and m["bound"] == 1, m
    assert not m["isIpv4"] and m["discMethod"] == DISC_DHCPV6, m
    return binding


def check_removed(lab, port, ip, what):
    wait_for(lambda: binding6_of(lab, port, ip) is None, timeout=10, what=what)
    wait_for(lambda: [m for m in lab.messages_seen + lab.messages()
                      if m["name"] == "portdb.entry.removed" and m["ip"] == ip],
             timeout=5, what=f"portdb.entry.removed for {ip}")


def test_dhclient6_lease_binding_and_release(lab):
    up, a, b = setup_lan(lab)
    lab.dhclient6(a)
    ip = lab.dhclient6_bound(a)
    assert in_range(ip, *RANGE), ip
    wait_for(lambda: ip in a.addresses6(), timeout=5, what="dhclient -6 to set the address")
    check_lease_binding(lab, 0x20, A_MAC, ip)
    # The leased address works through the switch (DHCPv6 gives a /128;
    # the prefix is on the link, as a router would have said).
    a.wait_dad()
    a.run("ip", "-6", "route", "replace", "2001:db8::/64", "dev", "eth0")
    a.ping(SERVER_IP, count=2, src=ip)
    # A release ends the binding, and the removal is announced.
    lab.dhclient6_release(a)
    check_removed(lab, 0x20, ip, "the binding to go with the release")
    assert ip not in a.addresses6()
    # Port B saw none of it as its own, and nothing is pending.
    assert lab.bindings6(0x30) == []
    assert lab.state(0x20)["dhcpV6ReqList"] == []
    assert lab.ctl("check")["violations"] == []


@pytest.mark.skipif(shutil.which("dhcpcd") is None, reason="dhcpcd is not installed")
def test_dhcpcd6_lease_binding_and_release(lab):
    up, a, b = setup_lan(lab)
    # Stateful DHCPv6 straight away, without waiting for a router's
    # advertisement: one IA_NA (IAID 1).
    conf = f"{lab.workdir}/dhcpcd6.conf"
    with open(conf, "w") as f:
        f.write("ipv6only\nnoipv6rs\nia_na 1\n")
    # dhcpcd keeps its DUID, leases and sockets under /var/lib/dhcpcd and
    # /run/dhcpcd: in the mount namespace that "ip netns exec" makes for it,
    # a directory of this test goes over the one and a fresh /run over the
    # other.
    lib = f"{lab.workdir}/dhcpcd6-lib"
    os.makedirs(lib, exist_ok=True)
    script = ("mount -t tmpfs vl-run /run && "
              "{ [ ! -d /var/lib/dhcpcd ] || mount --bind " + lib + " /var/lib/dhcpcd; } && "
              f"exec dhcpcd -f {conf} -c /bin/true -6 -B -d -t 20 eth0")
    proc, log = b.spawn("sh", "-c", script, name="dhcpcd6")
    lease = wait_for(lambda: [e for e in lab.bindings6(0x30) if e["discMethod"] == DISC_DHCPV6],
                     timeout=15, what=f"dhcpcd's binding:\n{lab.read(log)}")
    ip = lease[0]["ip"]
    assert in_range(ip, *RANGE), lease
    binding = check_lease_binding(lab, 0x30, B_MAC, ip)
    assert binding["iaId"] == 1, binding
    wait_for(lambda: ip in b.addresses6(), timeout=10, what="dhcpcd to set the address")
    b.wait_dad()
    b.run("ip", "-6", "route", "replace", "2001:db8::/64", "dev", "eth0")
    b.ping(SERVER_IP, count=2, src=ip)
    # SIGALRM: dhcpcd releases its lease and ends.
    os.kill(proc.pid, signal.SIGALRM)
    proc.wait(timeout=10)
    check_removed(lab, 0x30, ip, f"the binding to go with the release:\n{lab.read(log)}")
    assert lab.bindings6(0x20) == []
    assert lab.ctl("check")["violations"] == []


def test_rogue_dhcpv6_server_blocked(lab):
    up, a, b = setup_lan(lab, server=False)
    b.add_ip6(f"{ROGUE_IP}/64")
    b.wait_dad()
    # B's port drops what a server sends before the rogue starts.
    answer = lab.ctl("security", "0x30", f"features={FEAT_DHCPV6_SERVER_BLOCK:#x}")
    assert answer["status"] == 0
    lab.dnsmasq6(b, *ROGUE_RANGE, name="rogue6")
    # A solicits for 5 s: every Advertise of the rogue is dropped at B's port
    # (A's first Solicit and at least two retransmissions each get one).
    lab.dhclient6(a)
    wait_for(lambda: lab.stats(0x30)["statDhcpV6ServerBlockDrops"] >= 3, timeout=8,
             what="three Advertise messages dropped by the DHCPv6 server block")
    assert "RCV:" not in lab.read(a.dhclient6_log), lab.read(a.dhclient6_log)
    lab.stop(a.dhclient6)
    assert not [ip for ip in a.addresses6() if in_range(ip, *ROGUE_RANGE)], a.addresses6()
    assert lab.bindings6(0x20) == []
    assert lab.switch_port(0x30)["rxDropped"] >= 3
    # With the block off, the rogue's Advertise and Reply reach A, and A's
    # port learns the rogue's lease: the block is what stopped it.
    assert lab.ctl("security", "0x30", "features=0")["status"] == 0
    lab.dhclient6(a)
    ip = lab.dhclient6_bound(a)
    assert in_range(ip, *ROGUE_RANGE), ip
    wait_for(lambda: binding6_of(lab, 0x20, ip), timeout=5, what="the rogue lease's binding")
    assert lab.ctl("check")["violations"] == []
