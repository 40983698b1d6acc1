"""A port's state carried by vigild: a VM with a DHCP lease moved from one
vigild to another through `save` and `restore`, and a live upgrade of the
module under a ping flood."""
import os
import re
import time

from lab import LabError, wait_for

SERVER_MAC = "02:00:00:00:05:01"
VM_MAC = "02:00:00:00:05:0a"

# Host A: the uplink 0x10 and the VM's port 0x20.  Host B: the uplink 0x10
# and port 0x40, configured alike, that the VM moves to.
HOST_A = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
prop write 0x20 enabled text:true
discovery 0x20 dhcp=1 arp=1
port attach 0x10 up-a
port attach 0x20 p-vm
"""
HOST_B = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x40
prop write 0x40 enabled text:true
discovery 0x40 dhcp=1 arp=1
port attach 0x10 up-b
"""

KEPT = ("vlanId", "mac", "ip", "discMethod", "clientMac", "clientIdLen", "clientId",
        "serverIp", "leaseTime")


def binding_of(host, port, ip):
    for entry in host.bindings(port):
        if entry["ip"] == ip:
            return entry
    return None


def dhcp_lines(lab, log):
    return [line for line in lab.read(log).splitlines() if "DHCP" in line and "(" in line]


def test_vm_with_a_lease_moves_to_another_vigild(lab):
    # The DHCP server behind a Linux bridge that both hosts' uplinks reach.
    lan = lab.netns("lan")
    server = lab.vm("srv", SERVER_MAC, ip="192.0.2.1/24", peer_ns=lan)
    lab.link(lab.sw, "up-a", lan, "l-a")
    lab.link(lab.sw, "up-b", lan, "l-b")
    lab.bridge(lan, "br0", server.port_if, "l-a", "l-b")
    vm = lab.vm("vm", VM_MAC)
    a = lab.host("a", HOST_A)
    b = lab.host("b", HOST_B)
    dnsmasq = lab.dnsmasq(server, "192.0.2.50", "192.0.2.60", lease="10m", router="192.0.2.1")
    server_log = [log for name, proc, log in lab.procs if proc is dnsmasq][0]

    # The lease, through host A: its binding is in A's state.
    ip = lab.dhclient(vm)
    bound = wait_for(lambda: binding_of(a, 0x20, ip), timeout=5, what="A's binding")
    assert bound["discMethod"] == 1 and bound["mac"] == VM_MAC and bound["leaseTime"] == 600
    white = f"port=mac={VM_MAC},ip={ip}/32"
    for host, port in ((a, 0x20), (b, 0x40)):
        assert host.ctl("security", port, "features=0x40", white)["status"] == 0
    vm.ping("192.0.2.1")
    assert a.stats(0x20)["statWardenV4Drops"] == 0

    # The move: A's port leaves the VM's interface, its state goes to a file
    # and from the file into B's port, which no frame of the VM has reached.
    a.ctl("port", "detach", 0x20)
    dhcp_before = len(dhcp_lines(lab, server_log))
    path = os.path.join(lab.workdir, "vm-port.state")
    started = time.monotonic()
    saved = a.ctl("save", 0x20, path)
    assert saved["saveStatus"] == 0 and saved["dataLen"] > 0, saved
    assert os.path.getsize(path) == saved["dataLen"]
    left_on_a = bound["expiryTs"] - a.ctl("uptime")["time"]
    assert b.bindings(0x40) == []
    assert all(p["portID"] != 0x40 for p in b.ctl("switch")["ports"])
    b.messages()
    elapsed_ms = int((time.monotonic() - started) * 1000)
    restored = b.ctl("restore", 0x40, path, f"elapsed={elapsed_ms}")
    assert restored["status"] == 0 and restored["bufLen"] == saved["dataLen"], restored
    moved = binding_of(b, 0x40, ip)
    assert moved is not None, b.state(0x40)
    assert {k: moved[k] for k in KEPT} == {k: bound[k] for k in KEPT}
    left_on_b = moved["expiryTs"] - b.ctl("uptime")["time"]
    assert abs(left_on_b - (left_on_a - elapsed_ms / 1000)) <= 2, (left_on_a, left_on_b)
    # No DHCP frame made it: B has no pending request, and its only message
    # is the restore's announcement of the binding.
    state_b = b.state(0x40)
    assert state_b["numDhcpReqs"] == 0 and state_b["dhcpReqList"] == []
    announced = b.messages()
    assert [(m["name"], m["portID"], m["ip"], m["bound"]) for m in announced] == \
        [("portdb.entry.added", 0x40, ip, 1)], announced
    # A lets the port go, as the source host of a move does.
    a.ctl("port", "remove", 0x20)

    # The VM's interface joins B: its traffic flows through B's port, whose
    # warden lets the leased address pass and drops another.
    b.ctl("port", "attach", 0x40, vm.port_if)
    vm.ping("192.0.2.1", count=5)
    port_b = b.switch_port(0x40)
    assert port_b["rxFrames"] >= 5 and port_b["txFrames"] >= 5, port_b
    assert b.stats(0x40)["statWardenV4Drops"] == 0
    vm.add_ip("192.0.2.99/24")
    assert not vm.ping("192.0.2.1", src="192.0.2.99", count=2, check=False)
    assert b.stats(0x40)["statWardenV4Drops"] >= 2
    vm.ping("192.0.2.1", count=2)
    # Still the binding that came in the file, with no DHCP exchange since.
    after = binding_of(b, 0x40, ip)
    assert after is not None and after["expiryTs"] == moved["expiryTs"], after
    assert b.state(0x40)["numDhcpReqs"] == 0
    assert len(dhcp_lines(lab, server_log)) == dhcp_before, lab.read(server_log)
    assert vm.dhclient.poll() is None
    assert b.ctl("check")["violations"] == []
    for host in (a, b):
        rc, log = host.stop()
        assert rc == 0 and "leaks=0 " in log, log


UPLINK_MAC = "02:00:00:00:06:01"
A_MAC = "02:00:00:00:06:0a"
B_MAC = "02:00:00:00:06:0b"

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

# The flood: 2000 echo requests 2 ms apart (about 4 s), each answer awaited
# at most 2 s after the last request.
FLOOD_COUNT = 2000
# Frames that may go missing across the upgrades: those in flight when the
# switching stops, which the sockets keep; the bound leaves room for what a
# busy machine may lose.
MOST_LOST = 64


def comparable(entries):
    return sorted((tuple(e.get(k) for k in KEPT), e["expiryTs"]) for e in entries)


def ping_summary(text):
    m = re.search(r"(\d+) packets transmitted, (\d+) received", text)
    if not m:
        raise LabError(f"no ping summary in:\n{text}")
    return int(m.group(1)), int(m.group(2))


def test_live_upgrade_under_a_ping_flood_keeps_bindings(lab):
    up = lab.vm("up", UPLINK_MAC, ip="192.0.2.1/24")
    a = lab.vm("a", A_MAC)
    b = lab.vm("b", B_MAC, ip="192.0.2.21/24")
    lab.start_vigild(SWITCH)
    lab.dnsmasq(up, "192.0.2.50", "192.0.2.60", lease="10m", router="192.0.2.1")
    ip = lab.dhclient(a)
    b.ping(ip)
    b.ping("192.0.2.1")
    wait_for(lambda: binding_of(lab, 0x20, ip), timeout=5, what="A's lease binding")
    wait_for(lambda: binding_of(lab, 0x30, b.ip), timeout=5, what="B's ARP binding")
    before = {port: lab.bindings(port) for port in (0x20, 0x30)}
    module = lab.ctl("switch")["module"]

    flood, log = a.spawn("ping", "-n", "-q", "-c", str(FLOOD_COUNT), "-i", "0.002", "-W", "2",
                         b.ip, name="flood")
    upgrades = []
    for i in range(2):
        time.sleep(1.0)
        assert flood.poll() is None, "the flood ended before the upgrade"
        # The first takes the module's own file again, the second names it.
        words = ("upgrade",) if i == 0 else ("upgrade", "--module", module)
        answer = lab.ctl(*words)
        assert answer["status"] == 0, answer
        assert sorted(answer["ports"]) == [0x20, 0x30], answer
        assert answer["oldLeaks"] == 0, answer
        assert answer["switch"]["unfiltered"] == [], answer
        upgrades.append(answer["switch"])
    flood.wait(timeout=30)
    sent, received = ping_summary(lab.read(log))
    lost = sent - received
    for i, sw in enumerate(upgrades):
        print(f"upgrade {i + 1}: switching held {sw['heldMs']:.1f} ms, "
              f"{sw['framesWaited']} frames waited in the sockets, "
              f"{sw['framesLost']} lost there")
    print(f"ping flood across {len(upgrades)} live upgrades: {sent} sent, {received} "
          f"answered, {lost} lost")
    assert sent == FLOOD_COUNT, lab.read(log)
    assert lost <= MOST_LOST, lab.read(log)

    # Every binding is as it was, and both ports have the filter in their
    # data path.
    after = {port: lab.bindings(port) for port in (0x20, 0x30)}
    for port in (0x20, 0x30):
        was, now = comparable(before[port]), comparable(after[port])
        assert [k for k, _ in now] == [k for k, _ in was], (before[port], after[port])
        for (_, t0), (_, t1), e in zip(was, now, after[port]):
            if e["discMethod"] == 1:
                assert abs(t1 - t0) <= 1, (before[port], after[port])
            else:
                assert t1 >= t0 - 1, (before[port], after[port])
        assert lab.state(port)["chains"] == {"input": True, "output": True}
    sw = lab.ctl("switch")
    assert sw["upgrades"] == 2 and sw["module"] == module
    assert lab.ctl("check")["violations"] == []
    a.ping(b.ip)
    assert a.dhclient.poll() is None
    rc, text = lab.stop_vigild()
    assert rc == 0 and "leaks=0 " in text, text
    assert text.count("upgrade: the module runs from") == 2, text
