"""A fleet of vigild hosts on one etcd cluster: two hosts whose uplinks share
a LAN (one VLAN) with a DHCP server, a cluster of three etcd members on the
switch namespace's loopback.  A lease on host A is seen from host B; a VM on
B claiming A's address is refused naming A; a VM moved from A to B keeps its
address and its claim; a host that dies lets its claims go after its lease;
one member down changes nothing, the whole cluster down keeps traffic
flowing and is reconciled when it returns.  Addresses come from
192.0.2.0/24."""
import os
import signal

from etcd_cluster import EtcdCluster
from lab import wait_for

SERVER_MAC = "02:00:00:00:30:01"
A1_MAC = "02:00:00:00:30:0a"
A2_MAC = "02:00:00:00:30:0b"
B1_MAC = "02:00:00:00:30:1a"
MOVER_MAC = "02:00:00:00:30:2a"
SERVER_IP = "192.0.2.1"
LEASE_SECONDS = 3

# Host A: the uplink 0x10, VM ports 0x20 and 0x21, and 0x30 for the VM that
# moves.  Host B: the uplink 0x10, VM port 0x40, and 0x50 that the VM moves
# to.
HOST_A = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x21
port add vs0 0x30
port attach 0x10 up-a
"""
HOST_B = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x40
port add vs0 0x50
port attach 0x10 up-b
"""

POLICY = """
[defaults]
discovery = ["dhcp", "arp"]
features = ["port-warden", "dhcp-server-block"]
rate-limits = {{}}
learn = "any"

{ports}

[fleet]
endpoints = {endpoints}
host = "{host}"
prefix = "/vigil"
lease-seconds = %d
""" % LEASE_SECONDS

# A gratuitous ARP reply (the VM's MAC, an address): how a VM claims an
# address on its port.
CLAIM = """
import sys
from scapy.all import ARP, Ether, sendp
mac, ip = sys.argv[1], sys.argv[2]
sendp(Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") /
      ARP(op=2, hwsrc=mac, psrc=ip, hwdst="ff:ff:ff:ff:ff:ff", pdst=ip),
      iface="eth0", count=2, inter=0.1, verbose=False)
"""


def policy(lab, host, ports, cluster):
    path = os.path.join(lab.workdir, f"policy-{host}.toml")
    endpoints = "[" + ", ".join(f'"{e}"' for e in cluster.endpoints) + "]"
    with open(path, "w") as f:
        f.write(POLICY.format(ports=ports, endpoints=endpoints, host=host))
    return path


def start_host(lab, name, script, ports, cluster):
    path = policy(lab, name, ports, cluster)
    state = os.path.join(lab.workdir, f"state-{name}")
    return lab.host(name, script, extra=("--policy", path, "--state-dir", state))


def make_fleet(lab, with_b=True):
    """The LAN with the DHCP server, the etcd cluster, host A (and B)."""
    lan = lab.netns("lan")
    server = lab.vm("srv", SERVER_MAC, ip=f"{SERVER_IP}/24", peer_ns=lan)
    lab.link(lab.sw, "up-a", lan, "l-a")
    lab.link(lab.sw, "up-b", lan, "l-b")
    lab.bridge(lan, "br0", server.port_if, "l-a", "l-b")
    cluster = EtcdCluster(lab, lab.sw)
    cluster.start()
    a = start_host(lab, "hvA", HOST_A,
                   "[port.0x20]\nenabled = true\n[port.0x21]\nenabled = true\n"
                   "[port.0x30]\nenabled = true\n", cluster)
    b = start_host(lab, "hvB", HOST_B, "[port.0x40]\nenabled = true\n[port.0x50]\nenabled = true\n",
                   cluster) if with_b else None
    lab.dnsmasq(server, "192.0.2.50", "192.0.2.99", lease="10m", router=SERVER_IP)
    return server, cluster, a, b


def vm_on(lab, host, port, name, mac):
    vm = lab.vm(name, mac)
    host.ctl("port", "attach", port, vm.port_if)
    return vm


def key_of(ip, vlan=0):
    return f"/vigil/bindings/{vlan}/{ip}"


def held(cluster, ip):
    """The value of an address's key in etcd, or None."""
    return cluster.get_prefix("/vigil/bindings/").get(key_of(ip))


def fleet_row(host, ip):
    for row in host.ctl("fleet", "bindings")["bindings"]:
        if row["ip"] == ip:
            return row
    return None


def white_ips(host, port):
    return [e["ip"] for e in host.state(port)["portWhiteList"]]


def test_a_fleet_shares_leases_refuses_another_host_and_follows_a_moved_vm(lab):
    server, cluster, a, b = make_fleet(lab)

    # A lease through host A: admitted there, published, and seen from B.
    a1 = vm_on(lab, a, 0x20, "a1", A1_MAC)
    ip = lab.dhclient(a1)
    wait_for(lambda: ip in white_ips(a, 0x20), timeout=3, what="A1's lease admitted on A")
    value = wait_for(lambda: held(cluster, ip), timeout=3, what="A1's key in etcd")
    assert {k: value[k] for k in ("host", "portID", "mac", "method")} == \
        {"host": "hvA", "portID": 0x20, "mac": A1_MAC, "method": "dhcp"}, value
    row = wait_for(lambda: fleet_row(b, ip), timeout=5, what="A1's binding seen from B")
    assert row["host"] == "hvA" and row["mac"] == A1_MAC and row["vlanId"] == 0, row
    a1.ping(SERVER_IP)

    # A VM on B takes A1's address: learnt on B, refused, naming host A.
    b1 = vm_on(lab, b, 0x40, "b1", B1_MAC)
    b1.add_ip(f"{ip}/24")
    b1.python(CLAIM, B1_MAC, ip)
    conflicts = wait_for(lambda: b.ctl("conflicts")["conflicts"], timeout=5,
                         what="B's conflict")
    assert conflicts == [{"vlanId": 0, "ip": ip, "mac": B1_MAC, "portID": 0x40,
                          "heldBy": {"portID": 0x20, "mac": A1_MAC, "host": "hvA"}}], conflicts
    assert ip not in white_ips(b, 0x40)
    drops = b.stats(0x40)["statWardenV4Drops"]
    assert not b1.ping(SERVER_IP, count=2, check=False)
    assert b.stats(0x40)["statWardenV4Drops"] >= drops + 2
    assert held(cluster, ip)["host"] == "hvA"
    a1.ping(SERVER_IP)

    # A VM with a lease moves from A's port 0x30 to B's port 0x50: B claims
    # its address with the same MAC before A lets the port go, and keeps it.
    mover = vm_on(lab, a, 0x30, "mv", MOVER_MAC)
    mip = lab.dhclient(mover)
    wait_for(lambda: (held(cluster, mip) or {}).get("host") == "hvA", timeout=3,
             what="the mover's key on A")
    a.ctl("port", "detach", 0x30)
    path = os.path.join(lab.workdir, "mover.state")
    assert a.ctl("save", 0x30, path)["saveStatus"] == 0
    assert b.ctl("restore", 0x50, path)["status"] == 0
    wait_for(lambda: (held(cluster, mip) or {}).get("host") == "hvB", timeout=3,
             what="the mover's key taken over by B")
    a.ctl("port", "remove", 0x30)
    b.ctl("port", "attach", 0x50, mover.port_if)
    wait_for(lambda: mip in white_ips(b, 0x50), timeout=3, what="the mover admitted on B")
    mover.ping(SERVER_IP, count=3)
    value = held(cluster, mip)
    assert (value["host"], value["portID"], value["mac"]) == ("hvB", 0x50, MOVER_MAC), value
    assert b.ctl("conflicts")["conflicts"] == conflicts

    # Host A dies: nobody keeps its lease alive, its keys go, and B's
    # refused claim to A1's address is admitted then.
    a.stop(signal.SIGKILL)
    wait_for(lambda: (held(cluster, ip) or {}).get("host") == "hvB",
             timeout=LEASE_SECONDS + 5, what="A's claim gone and B's admitted")
    wait_for(lambda: ip in white_ips(b, 0x40), timeout=3, what="B1 admitted")
    assert b.ctl("conflicts")["conflicts"] == []
    b1.ping(SERVER_IP, count=2)
    rc, log = b.stop()
    assert rc == 0, log
    assert f"fleet: vlan 0 {ip} mac {B1_MAC} refused: held by host hvA port 32 mac {A1_MAC}" in log
    assert f"fleet: vlan 0 {mip} mac {MOVER_MAC} admitted, taken over from host hvA" in log


def test_a_fleet_rides_out_a_member_down_and_the_whole_cluster_down(lab):
    server, cluster, a, _ = make_fleet(lab, with_b=False)
    a1 = vm_on(lab, a, 0x20, "a1", A1_MAC)
    ip = lab.dhclient(a1)
    wait_for(lambda: held(cluster, ip), timeout=3, what="A1's key")

    # One member down: the next lease is published as before.
    cluster.stop_member(0)
    a2 = vm_on(lab, a, 0x21, "a2", A2_MAC)
    ip2 = lab.dhclient(a2)
    value = wait_for(lambda: held(cluster, ip2), timeout=5, what="A2's key with a member down")
    assert value["host"] == "hvA"
    a1.ping(SERVER_IP)

    # The whole cluster down: traffic flows, a new lease is admitted
    # unconfirmed, and published once the cluster is back.
    cluster.stop()
    wait_for(lambda: not a.ctl("agent")["fleet"]["online"], timeout=LEASE_SECONDS + 3,
             what="the fleet to notice etcd gone")
    a1.ping(SERVER_IP, count=5)
    a2.ping(SERVER_IP)
    # A2 lets its lease go meanwhile: its key goes once etcd is back.
    lab.dhclient_release(a2)
    mover = vm_on(lab, a, 0x30, "a3", MOVER_MAC)
    ip3 = lab.dhclient(mover)
    wait_for(lambda: ip3 in white_ips(a, 0x30), timeout=3, what="A3 admitted unconfirmed")
    mover.ping(SERVER_IP)
    cluster.start()
    value = wait_for(lambda: held(cluster, ip3), timeout=10, what="A3's key after the outage")
    assert (value["host"], value["mac"]) == ("hvA", MOVER_MAC), value
    assert held(cluster, ip)["host"] == "hvA"
    wait_for(lambda: held(cluster, ip2) is None, timeout=5, what="A2's key deleted")
    wait_for(lambda: a.ctl("agent")["fleet"]["online"], timeout=5, what="the fleet online")
    a1.ping(SERVER_IP)
    rc, log = a.stop()
    assert rc == 0, log
    assert f"fleet: vlan 0 {ip3} mac {MOVER_MAC} admitted unconfirmed: etcd unreachable" in log, log
