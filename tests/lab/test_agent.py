"""vigild's management agent with real programs: VMs that lease their
addresses from dnsmasq (DHCP and DHCPv6) behind ports whose white lists the
agent keeps from a policy file, a spoofed source dropped, a second VM's
claim to the first one's address refused as a conflict, a policy reload
under traffic, and a restart of vigild that keeps every binding without a
new DHCP exchange.  Addresses come from 192.0.2.0/24 and 2001:db8::/32."""
import os
import signal
import threading

from lab import wait_for

UPLINK_MAC = "02:00:00:00:20:01"
A_MAC = "02:00:00:00:20:0a"
B_MAC = "02:00:00:00:20:0b"
SERVER_IP = "192.0.2.1"
SERVER_IP6 = "2001:db8::1"
RANGE = ("192.0.2.50", "192.0.2.99")
RANGE6 = ("2001:db8::100", "2001:db8::1ff")
SPOOFED = "192.0.2.200"

# The uplink (0x10, no filter) and the two VM ports; the agent enables the
# VM ports by their interfaces.
SWITCH = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x30
port attach 0x10 p-up
port attach 0x20 p-a
port attach 0x30 p-b
"""

# Link-local IPv6 is allowed so that DHCPv6 and neighbour discovery work
# before and beside the leases; the rest of the white list is learnt.
POLICY = """
[defaults]
discovery = ["dhcp", "arp", "dhcpv6"]
features = ["port-warden", "dhcp-server-block", "dhcpv6-server-block"]
rate-limits = {}
allow = ["ip=fe80::/10"]
learn = "dhcp"

[interface.p-a]
enabled = true

[interface.p-b]
enabled = true
learn = "any"
"""


def write_policy(lab, text, name="policy.toml"):
    path = os.path.join(lab.workdir, name)
    with open(path, "w") as f:
        f.write(text)
    return path


def start(lab, policy_path):
    state_dir = os.path.join(lab.workdir, "state")
    lab.start_vigild(SWITCH, extra=("--policy", policy_path, "--state-dir", state_dir))
    return state_dir


def setup_lan(lab):
    """The uplink with dnsmasq for DHCP and DHCPv6, VMs A and B with IPv6,
    vigild under the policy; A leased both families and past DAD."""
    up = lab.vm("up", UPLINK_MAC, ipv6=True)
    a = lab.vm("a", A_MAC, ipv6=True)
    b = lab.vm("b", B_MAC, ipv6=True)
    policy = write_policy(lab, POLICY)
    start(lab, policy)
    up.add_ip(f"{SERVER_IP}/24")
    up.add_ip6(f"{SERVER_IP6}/64")
    for vm in (up, a, b):
        vm.wait_dad()
    lab.dnsmasq(up, *RANGE)
    lab.dnsmasq6(up, *RANGE6)
    ip = lab.dhclient(a)
    lab.dhclient6(a)
    ip6 = lab.dhclient6_bound(a)
    wait_for(lambda: ip6 in a.addresses6(), timeout=5, what="dhclient -6 to set the address")
    a.run("ip", "-6", "route", "replace", "2001:db8::/64", "dev", "eth0")
    a.wait_dad()
    return up, a, b, ip, ip6, policy


def port_list(lab, port):
    return [(e["ip"], e["mac"], e["prefixLen"]) for e in lab.state(port)["portWhiteList"]]


def admitted(lab, port, ip, mac):
    return (ip, mac, 128 if ":" in ip else 32) in port_list(lab, port)


def dhcp_acks(lab, name):
    """The acknowledgements that the dnsmasq called `name` logged."""
    return sum(lab.read(log).count("DHCPACK") + lab.read(log).count("DHCPREPLY")
               for (n, _, log) in lab.procs if n == name)


def test_a_leased_vm_talks_a_spoofer_is_dropped_and_a_second_claim_is_a_conflict(lab):
    up, a, b, ip, ip6 = setup_lan(lab)[:5]
    # Both leases are in A's white list behind the allow entry, within 1 s
    # of their messages (the waits above took longer than that already).
    wait_for(lambda: admitted(lab, 0x20, ip, A_MAC) and admitted(lab, 0x20, ip6, A_MAC),
             timeout=2, what="A's leases in its white list")
    assert port_list(lab, 0x20)[0] == ("fe80::", "00:00:00:00:00:00", 10)
    assert lab.state(0x20)["featuresEnabled"] == 0x0040 | 0x0020 | 0x0800
    a.ping(SERVER_IP)
    a.ping(SERVER_IP6, src=ip6)
    up.ping(ip)

    # The same VM from an address that is not its own: dropped, counted.
    a.add_ip(f"{SPOOFED}/24")
    before = lab.stats(0x20)["statWardenV4Drops"] + lab.stats(0x20)["statWardenArpDrops"]
    assert not a.ping(SERVER_IP, src=SPOOFED, count=3, check=False)
    after = lab.stats(0x20)["statWardenV4Drops"] + lab.stats(0x20)["statWardenArpDrops"]
    assert after - before >= 3, lab.stats(0x20)
    a.run("ip", "addr", "del", f"{SPOOFED}/24", "dev", "eth0")
    a.ping(SERVER_IP)

    # B claims A's address by ARP: learnt on B's port, refused by the agent.
    counters = lab.ctl("agent")
    b.python(CLAIM, B_MAC, ip)
    conflicts = wait_for(lambda: lab.ctl("conflicts")["conflicts"], timeout=3,
                         what="the conflict")
    assert conflicts == [{"vlanId": 0, "ip": ip, "mac": B_MAC, "portID": 0x30,
                          "heldBy": {"portID": 0x20, "mac": A_MAC}}]
    assert lab.ctl("agent")["conflicts"] == counters["conflicts"] + 1
    assert not admitted(lab, 0x30, ip, B_MAC)
    assert any(e["ip"] == ip for e in lab.bindings(0x30))  # learnt, not admitted
    text = lab.ctl_raw("--text", "conflicts")[1]
    assert "0x30  0     " + ip in text, text
    # A keeps its address.
    a.ping(SERVER_IP)
    rc, log = lab.stop_vigild()
    assert rc == 0
    assert (f"agent: port 0x30: refused vlan 0 mac {B_MAC} ip {ip} (arp), held by port 0x20 "
            f"mac {A_MAC}: conflict") in log, log
    assert f"agent: port 0x20: admitted vlan 0 mac {A_MAC} ip {ip} (dhcp): binding added" in log


# A gratuitous ARP reply from B for an address (B's MAC, the address).
CLAIM = """
import sys
from scapy.all import ARP, Ether, sendp
mac, ip = sys.argv[1], sys.argv[2]
sendp(Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") /
      ARP(op=2, hwsrc=mac, psrc=ip, hwdst="ff:ff:ff:ff:ff:ff", pdst=ip),
      iface="eth0", count=2, inter=0.1, verbose=False)
"""


def ping_in_background(vm, dst, count):
    """Pings `dst` `count` times, 0.1 s apart, from another thread; the
    thread and where its output goes."""
    result = {}

    def run():
        r = vm.run("ping", "-n", "-q", "-c", str(count), "-i", "0.1", "-W", "1", dst,
                   timeout=count * 0.1 + 15, check=False)
        result["rc"], result["out"] = r.returncode, r.stdout
    t = threading.Thread(target=run)
    t.start()
    return t, result


def test_a_policy_reload_keeps_traffic_flowing(lab):
    up, a, b, ip, ip6, policy = setup_lan(lab)
    wait_for(lambda: admitted(lab, 0x20, ip, A_MAC), timeout=2, what="A's lease admitted")
    a.ping(SERVER_IP)
    writes = lab.ctl("agent")["writes"]
    # SIGHUP with a changed file: A's port gains an allow entry, nothing
    # else changes, and no ping is lost meanwhile.
    write_policy(lab, POLICY.replace('[interface.p-a]\nenabled = true\n',
                                     '[interface.p-a]\nenabled = true\n'
                                     'allow = ["ip=fe80::/10", "ip=198.51.100.9"]\n'))
    t, result = ping_in_background(a, SERVER_IP, 30)
    lab.vigild.send_signal(signal.SIGHUP)
    wait_for(lambda: admitted(lab, 0x20, "198.51.100.9", "00:00:00:00:00:00"), timeout=3,
             what="the new allow entry")
    assert admitted(lab, 0x20, ip, A_MAC) and admitted(lab, 0x20, ip6, A_MAC)
    t.join()
    assert result["rc"] == 0 and " 0% packet loss" in result["out"], result
    assert lab.ctl("agent")["writes"] == writes + 1
    assert lab.ctl("policy", "0x20")["policy"]["allow"] == ["ip=fe80::/10", "ip=198.51.100.9"]

    # `apply` of a file that fails changes nothing; of the first one, only
    # A's port.
    bad = write_policy(lab, POLICY + "\n[interface.p-b]\nlearn = \"some\"\n", "bad.toml")
    r = lab.ctl("apply", bad, ok=False)
    assert r["error"].startswith(f"control: policy refused, nothing applied: {bad}:"), r
    assert admitted(lab, 0x20, "198.51.100.9", "00:00:00:00:00:00")
    t, result = ping_in_background(a, SERVER_IP, 20)
    write_policy(lab, POLICY)
    r = lab.ctl("apply", policy)
    assert r["changed"] == [0x20], r
    t.join()
    assert result["rc"] == 0 and " 0% packet loss" in result["out"], result
    assert not admitted(lab, 0x20, "198.51.100.9", "00:00:00:00:00:00")
    assert admitted(lab, 0x20, ip, A_MAC) and admitted(lab, 0x20, ip6, A_MAC)
    a.ping(SERVER_IP6, src=ip6)
    rc, log = lab.stop_vigild()
    assert rc == 0
    assert "agent: port 0x20: policy changed (allow): reload" in log, log
    assert "reloaded: 1 ports changed" in log, log


def test_a_restart_keeps_every_binding_without_a_new_dhcp_exchange(lab):
    up, a, b, ip, ip6, policy = setup_lan(lab)
    wait_for(lambda: admitted(lab, 0x20, ip, A_MAC) and admitted(lab, 0x20, ip6, A_MAC),
             timeout=2, what="A's leases admitted")
    # The clients go without a word (no release, no renewal): whatever A
    # can do after the restart comes from the saved state.
    lab.stop(a.dhclient, signal.SIGKILL)
    lab.stop(a.dhclient6, signal.SIGKILL)
    assert ip in a.run("ip", "-4", "addr", "show", "dev", "eth0").stdout
    acks = dhcp_acks(lab, "dnsmasq"), dhcp_acks(lab, "dnsmasq6")
    rc, log = lab.stop_vigild()
    assert rc == 0
    state_dir = os.path.join(lab.workdir, "state")
    assert "agent: saved the bindings of " in log and f" ports in {state_dir} (2 admitted)" in log, log
    assert os.path.exists(os.path.join(state_dir, "port-0x20.state"))

    start(lab, policy)
    wait_for(lambda: admitted(lab, 0x20, ip, A_MAC) and admitted(lab, 0x20, ip6, A_MAC),
             timeout=3, what="A's leases admitted again")
    counters = lab.ctl("agent")
    assert counters["restored"] == 2 and counters["admitted"] == 2, counters
    methods = {e["ip"]: e["discMethod"] for e in lab.bindings(0x20) + lab.bindings6(0x20)}
    assert methods == {ip: 1, ip6: 16}, methods
    a.ping(SERVER_IP)
    a.ping(SERVER_IP6, src=ip6)
    up.ping(ip)
    assert (dhcp_acks(lab, "dnsmasq"), dhcp_acks(lab, "dnsmasq6")) == acks
    assert not os.path.exists(os.path.join(state_dir, "port-0x20.state"))
    rc, log = lab.stop_vigild()
    assert rc == 0
    assert f"agent: port 0x20: restored 2 bindings from {state_dir}/port-0x20.state" in log, log
