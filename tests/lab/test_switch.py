"""vigild as a switch: frames between veth ports through the module, the
learning table, VLANs, a clean stop, interfaces that go away and come back,
and a control socket that survives what clients send."""
import os
import re
import signal
import socket
import time

import pytest

from lab import VIGILD, wait_for

TWO_PORTS = """
load
portset add vs0
port add vs0 0x20
port add vs0 0x30
prop write 0x20 enabled text:true
prop write 0x30 enabled text:true
port attach 0x20 p-a
port attach 0x30 p-b
"""

# A TCP transfer: the server in one namespace counts what it receives and
# answers the count; the client sends `size` bytes.
TCP_SERVER = """
import socket, sys
s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind((sys.argv[1], 5001)); s.listen(1); s.settimeout(20)
c, _ = s.accept(); c.settimeout(20); n = 0
while True:
    d = c.recv(65536)
    if not d: break
    n += len(d)
c.sendall(str(n).encode()); c.close()
"""
TCP_CLIENT = """
import socket, sys, time
size, chunk = int(sys.argv[2]), bytes(range(256)) * 256
pause = float(sys.argv[3]) if len(sys.argv) > 3 else 0
c = socket.create_connection((sys.argv[1], 5001), timeout=10); sent = 0
while sent < size:
    n = c.send(chunk[:min(len(chunk), size - sent)]); sent += n
    if pause: time.sleep(pause)
c.shutdown(socket.SHUT_WR)
print(c.recv(100).decode())
"""


def tcp_transfer(lab, server_vm, client_vm, size, pause=0.0, timeout=30):
    server, log = server_vm.spawn_python(TCP_SERVER, server_vm.ip, name="tcp-server")
    time.sleep(0.3)
    r = client_vm.python(TCP_CLIENT, server_vm.ip, size, pause, timeout=timeout, check=False)
    server.wait(timeout=10)
    assert r.returncode == 0, f"TCP client failed: {r.stdout}{r.stderr}\n{lab.read(log)}"
    assert r.stdout.strip() == str(size), f"server got {r.stdout.strip()} of {size} bytes"


def test_two_ports_ping_tcp_and_clean_stop(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild(TWO_PORTS)
    a.ping(b.ip)
    b.ping(a.ip)
    tcp_transfer(lab, b, a, 2_000_000)
    tcp_transfer(lab, a, b, 500_000)

    sw = lab.ctl("switch")
    ports = {p["portID"]: p for p in sw["ports"]}
    assert ports[0x20]["up"] and ports[0x30]["up"]
    assert ports[0x20]["rxFrames"] > 1000 and ports[0x30]["txFrames"] > 1000
    assert ports[0x20]["rxOversize"] == 0 and ports[0x30]["rxOversize"] == 0
    # Frames went out through each port's send ring, none lost there.
    assert sw["txRing"] is True
    for p in ports.values():
        assert p["txRingFrames"] > 0, p
        assert p["txErrors"] == 0 and p["txRingFull"] == 0, p
    fdb = {(e["mac"], e["vlan"]): e["portID"] for e in sw["fdb"]}
    assert fdb[("02:00:00:00:00:0a", 0)] == 0x20
    assert fdb[("02:00:00:00:00:0b", 0)] == 0x30
    # Both filters saw the traffic and their tables hold.
    assert lab.state(0x20)["chains"] == {"input": True, "output": True}
    assert lab.ctl("check")["violations"] == []

    rc, log = lab.stop_vigild()
    assert rc == 0, log
    assert "port 0x20: detached from p-a" in log
    assert "port 0x30: detached from p-b" in log
    assert re.search(r"module unloaded: leaks=0 leakBytes=0 framesLive=0 heapsLive=0 "
                     r"callbacksLeft=0", log), log
    assert not os.path.exists(lab.control)


# The trunk's VM speaks 802.1Q itself: it asks, tagged, who has an address,
# and prints the VLAN and sender of the tagged answer ("none" without one).
TAGGED_ARP = """
import sys
from scapy.all import ARP, Dot1Q, Ether, conf, srp1
conf.verb = 0
mac, vlan, src, dst = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4]
ask = Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") / Dot1Q(vlan=vlan) / ARP(
    op=1, hwsrc=mac, psrc=src, pdst=dst)
ans = srp1(ask, iface="eth0", timeout=2)
print(f"{ans[Dot1Q].vlan} {ans[ARP].psrc}" if ans is not None and Dot1Q in ans else "none")
"""


def tagged_arp(vm, vlan, src, dst):
    r = vm.python(TAGGED_ARP, vm.mac, vlan, src, dst, timeout=20)
    return r.stdout.strip()


def test_access_and_trunk_vlans(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    c = lab.vm("c", "02:00:00:00:00:0c", ip="192.0.2.12/24")
    t = lab.vm("t", "02:00:00:00:00:0e")
    lab.start_vigild("""
load
portset add vs0
port add vs0 0x20
port add vs0 0x40
port add vs0 0x50
prop write 0x20 enabled text:true
prop write 0x40 enabled text:true
discovery 0x20 arp=1
port attach 0x20 p-a vlan=100
port attach 0x40 p-c vlan=200
port attach 0x50 p-t
""")
    # Tagged frames of the trunk reach the access port of their VLAN
    # untagged, and the answers come back tagged.
    assert tagged_arp(t, 100, "192.0.2.14", "192.0.2.10") == "100 192.0.2.10"
    assert tagged_arp(t, 200, "192.0.2.14", "192.0.2.12") == "200 192.0.2.12"
    # Nothing crosses from one VLAN to the other.
    assert tagged_arp(t, 100, "192.0.2.14", "192.0.2.12") == "none"
    assert not c.ping("192.0.2.10", count=2, check=False)
    fdb = {(e["mac"], e["vlan"]): e["portID"] for e in lab.ctl("switch")["fdb"]}
    assert fdb[("02:00:00:00:00:0a", 100)] == 0x20
    assert fdb[("02:00:00:00:00:0e", 100)] == 0x50
    assert fdb[("02:00:00:00:00:0c", 200)] == 0x40
    # The filter of the access port sees its frames on VLAN 100: its ARP
    # binding is on that VLAN.
    binding = wait_for(lambda: lab.bindings(0x20), timeout=5, what="an ARP binding")
    assert binding[0]["vlanId"] == 100 and binding[0]["ip"] == "192.0.2.10"
    assert binding[0]["discMethod"] == 2
    # A tagged frame on an access port is dropped.
    r = a.python(TAGGED_ARP, a.mac, 100, "192.0.2.10", "192.0.2.14", timeout=20)
    assert r.stdout.strip() == "none"
    assert lab.switch_port(0x20)["rxVlanDropped"] >= 1


def test_interface_goes_away_and_comes_back(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild(TWO_PORTS)
    a.ping(b.ip)
    # The switch end of B's veth goes; the pair goes with it.
    lab.run(lab.sw, "ip", "link", "del", "p-b")
    wait_for(lambda: not lab.switch_port(0x30)["up"], timeout=5, what="port 0x30 down")
    assert not a.ping(b.ip, count=1, check=False)
    assert "port 0x30: down" in lab.read(lab.vigild_log)
    # vigild still answers and still switches for the others.
    assert lab.ctl("uptime")["ok"]
    # A new pair under the same names.
    lab.run(None, "ip", "link", "add", "eth0", "netns", b.ns, "address", b.mac, "type", "veth",
            "peer", "name", "p-b", "netns", lab.sw)
    b.run("ip", "addr", "add", "192.0.2.11/24", "dev", "eth0")
    b.run("ip", "link", "set", "eth0", "up")
    lab.run(lab.sw, "ip", "link", "set", "p-b", "up")
    wait_for(lambda: lab.switch_port(0x30)["up"], timeout=5, what="port 0x30 back up")
    assert lab.switch_port(0x30)["linkDowns"] == 1
    a.ping(b.ip)
    assert re.search(r"port 0x30: p-b is back", lab.read(lab.vigild_log))
    # Administratively down and up again.
    lab.run(lab.sw, "ip", "link", "set", "p-b", "down")
    wait_for(lambda: not lab.switch_port(0x30)["up"], timeout=5, what="port 0x30 down")
    lab.run(lab.sw, "ip", "link", "set", "p-b", "up")
    wait_for(lambda: lab.switch_port(0x30)["up"], timeout=5, what="port 0x30 up")
    a.ping(b.ip)


def test_attach_detach_and_errors(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild("load\nportset add vs0\nport add vs0 0x20\nport add vs0 0x30\n")
    assert not a.ping(b.ip, count=1, check=False)
    assert lab.ctl("port", "attach", "0x20", "p-a")["up"]
    assert lab.ctl("port", "attach", "0x30", "p-b", "vlan=7")["vlan"] == 7
    # A trunk's untagged frames are on VLAN 0, B's on its access VLAN 7.
    assert not a.ping(b.ip, count=1, check=False)
    err = lab.ctl("port", "attach", "0x20", "p-b", ok=False)
    assert not err["ok"] and "attached" in err["error"]
    err = lab.ctl("port", "attach", "0x99", "p-b", ok=False)
    assert "unknown port 0x99" in err["error"]
    err = lab.ctl("port", "detach", "0x99", ok=False)
    assert "not attached" in err["error"]
    # A missing interface: attached and down until it comes.
    waiting = lab.ctl("port", "add", "vs0", "0x60")
    waiting = lab.ctl("port", "attach", "0x60", "p-later")
    assert waiting["up"] is False and "no interface" in waiting["downReason"]
    assert lab.ctl("port", "detach", "0x30")["ifname"] == "p-b"
    lab.ctl("port", "attach", "0x30", "p-b")
    a.ping(b.ip)
    lab.ctl("port", "remove", "0x30")
    assert all(p["portID"] != 0x30 for p in lab.ctl("switch")["ports"])
    assert not a.ping(b.ip, count=1, check=False)


def _raw_control(path, data, read=True, timeout=5):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(timeout)
    s.connect(path)
    try:
        s.sendall(data)
        s.shutdown(socket.SHUT_WR)
        out = b""
        while read:
            chunk = s.recv(65536)
            if not chunk:
                break
            out += chunk
        return out
    finally:
        s.close()


def test_control_socket_survives_garbage(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild(TWO_PORTS)
    path = lab.control
    # Binary noise, invalid UTF-8, bad quoting: one error answer per line.
    out = _raw_control(path, b"\xff\xfe\x00\x01garbage\n\"unterminated\nstate 0x20 \xc3\x28\n"
                             b"portset\n\n# comment\nuptime\n")
    answers = out.decode("utf-8", "replace").splitlines()
    assert len(answers) == 5, answers
    assert [a_.startswith('{"cmd"') for a_ in answers] == [True] * 5
    assert '"ok":true' in answers[-1]
    # A line without an end, longer than any command: the client is cut off.
    out = _raw_control(path, b"x" * (300 * 1024))
    assert b"line longer than" in out
    # Many clients at once, some that never read.
    idle = []
    for _ in range(80):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(path)
        idle.append(s)
    for s in idle:
        s.close()
    wait_for(lambda: lab.ctl_raw("uptime")[0] == 0, timeout=5,
             what="the control socket to take clients again")
    # A client that sends many commands in one go gets every answer.
    out = _raw_control(path, b"uptime\n" * 200, timeout=20)
    assert out.count(b'"cmd":"uptime","ok":true') == 200
    # The daemon still answers and switches.
    assert lab.ctl("uptime")["ok"]
    a.ping(b.ip, count=2)
    rc, log = lab.stop_vigild(signal.SIGINT)
    assert rc == 0, log
    assert "signal Interrupt: stopping" in log
    assert "module unloaded: leaks=0" in log


def test_vigilctl_quoting_and_text(lab):
    lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    lab.start_vigild("load\nportset add vs0\nport add vs0 0x20\nport attach 0x20 p-a\n"
                     "prop write 0x20 enabled text:true\n")
    answer = lab.ctl("security", "0x20", "features=0x40", "port=ip=192.0.2.10/32")
    assert answer["status"] == 0
    assert lab.state(0x20)["portWhiteList"][0]["ip"] == "192.0.2.10"
    answer = lab.ctl("echo", "two words", 'a"quote', "back\\slash")
    assert answer["text"] == 'two words a"quote back\\slash'
    rc, out, _ = lab.ctl_raw("state", "0x20", text=True)
    assert rc == 0 and out.startswith("> state 0x20") and "192.0.2.10" in out, out
    rc, out, _ = lab.ctl_raw("switch", text=True)
    assert rc == 0 and "0x20  vs0      p-a        up     trunk" in out, out
    rc, out, _ = lab.ctl_raw("state", "0x99")
    assert rc == 1 and '"ok":false' in out


# A flood of unicast frames to one learnt address, as fast as a packet socket
# goes, for at most `seconds`.
UNICAST_FLOOD = """
import socket, sys, time
src, dst, seconds = sys.argv[1], sys.argv[2], float(sys.argv[3])
mac = lambda m: bytes(int(x, 16) for x in m.split(":"))
frame = mac(dst) + mac(src) + b"\\x88\\xb5" + bytes(46)
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind(("eth0", 0))
start = time.monotonic(); sent = 0
while time.monotonic() - start < seconds:
    for _ in range(64):
        try:
            s.send(frame); sent += 1
        except BlockingIOError:
            break
print(sent)
"""


def test_a_flood_on_one_port_starves_no_other(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    c = lab.vm("c", "02:00:00:00:00:0c", ip="192.0.2.12/24")
    lab.start_vigild(TWO_PORTS + "port add vs0 0x40\nport attach 0x40 p-c\n"
                     "prop write 0x40 enabled text:true\n", extra=("--budget", "2"))
    a.ping(c.ip)
    b.ping(c.ip)  # C is learnt: B's flood goes to C alone
    flood, log = b.spawn_python(UNICAST_FLOOD, b.mac, c.mac, 4, name="flood")
    time.sleep(0.5)
    r = a.run("ping", "-n", "-q", "-c", "10", "-i", "0.2", "-W", "1", c.ip, timeout=20,
              check=False)
    flood.wait(timeout=15)
    sent = int(lab.read(log).split()[0])
    port_b = lab.switch_port(0x30)
    assert sent > 5000 and port_b["rxFrames"] > 2000, (sent, port_b)
    received = int(r.stdout.split(" received")[0].split()[-1])
    assert received >= 8, r.stdout
    assert lab.switch_port(0x20)["rxFrames"] >= 10


def test_start_up_failures_and_signals(lab):
    bad = f"{lab.workdir}/bad.vsim"
    with open(bad, "w") as f:
        f.write("load\nportset add vs0\nport add vs0 0x20\nport attach 0x20 p-x vlan=5000\n"
                "echo never\n")
    r = lab.run(lab.sw, VIGILD, "--script", bad, "--stop-on-error", check=False, timeout=30)
    assert r.returncode == 1, r.stdout + r.stderr
    assert "bad.vsim:4" in r.stderr and "start-up script" in r.stderr
    assert "module unloaded: leaks=0" in r.stderr
    assert '"text":"never"' not in r.stdout
    r = lab.run(lab.sw, VIGILD, "--no-such-option", check=False)
    assert r.returncode == 2
    r = lab.run(lab.sw, VIGILD, "--script", "/nonexistent.vsim", check=False)
    assert r.returncode == 2
    # Without a load in its scripts, vigild loads the module itself.
    lab.start_vigild("# nothing\n")
    assert "module loaded: status 0" in lab.read(lab.vigild_log)
    assert lab.ctl("module")["numFilters"] == 0
    # One daemon per control socket; SIGHUP does not stop it.
    r = lab.run(lab.sw, VIGILD, "--control", lab.control, check=False, timeout=30)
    assert r.returncode == 1 and "another daemon answers" in r.stderr
    lab.vigild.send_signal(signal.SIGHUP)
    time.sleep(0.5)
    assert lab.ctl("uptime")["ok"]
    # The stop command ends it as SIGTERM does.
    assert lab.ctl("stop")["ok"]
    assert lab.vigild.wait(timeout=15) == 0
    assert "module unloaded: leaks=0" in lab.read(lab.vigild_log)
    lab.vigild = None


# `count` unicast frames to `dst`, in bursts that the kernel hands on before
# the next one, so that each reaches the switch's port; prints how many went.
COUNTED_FRAMES = """
import socket, sys, time
src, dst, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
mac = lambda m: bytes(int(x, 16) for x in m.split(":"))
frame = mac(dst) + mac(src) + b"\\x88\\xb5" + bytes(46)
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind(("eth0", 0))
sent = 0
while sent < count:
    for _ in range(min(100, count - sent)):
        s.send(frame); sent += 1
    time.sleep(0.001)
print(sent)
"""


def test_frames_lost_in_a_full_receive_ring_are_counted_by_switch_and_vigilctl(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild(TWO_PORTS)
    a.ping(b.ip, count=2)
    sw = lab.ctl("switch")
    assert sw["socketDrops"] == 0 and sw["switchDrops"] == 0
    before = {p["portID"]: p for p in sw["ports"]}
    ring = before[0x20]["ringFrames"]
    assert ring > 0
    # vigild stopped: what port 0x20 receives fills its ring, and the kernel
    # drops the rest.
    frames = ring + 1500
    os.kill(lab.vigild.pid, signal.SIGSTOP)
    try:
        r = a.python(COUNTED_FRAMES, a.mac, b.mac, frames, timeout=60)
    finally:
        os.kill(lab.vigild.pid, signal.SIGCONT)
    assert int(r.stdout) == frames

    def counted():
        ports = {p["portID"]: p for p in lab.ctl("switch")["ports"]}
        return ports[0x20]["rxSocketDrops"] == 1500 and \
            ports[0x30]["txFrames"] - before[0x30]["txFrames"] == ring
    wait_for(counted, timeout=10, what="the ring's drops counted")
    sw = lab.ctl("switch")
    ports = {p["portID"]: p for p in sw["ports"]}
    assert ports[0x20]["rxFrames"] - before[0x20]["rxFrames"] == ring
    assert ports[0x20]["rxSocketDrops"] == 1500 and ports[0x30]["rxSocketDrops"] == 0
    assert ports[0x20]["switchDrops"] == 0 and ports[0x30]["switchDrops"] == 0
    assert sw["socketDrops"] == 1500 and sw["switchDrops"] == 0
    assert sw["threads"] == 2
    assert "1500 frames lost: the socket's receive ring was full" in lab.read(lab.vigild_log)
    rc, out, _ = lab.ctl_raw("switch", text=True)
    assert rc == 0, out
    assert "lost: 1500 frames in the receive rings (full), 0 dropped by vigild; " \
           "2 switching threads" in out, out
    row = next(line.split() for line in out.splitlines() if line.split()[:1] == ["0x20"])
    assert row[-2:] == ["1500", "0"], out
    rc, log = lab.stop_vigild()
    assert rc == 0, log


def test_sendmmsg_without_a_send_ring(lab):
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild(TWO_PORTS, extra=("--no-tx-ring",))
    a.ping(b.ip)
    tcp_transfer(lab, b, a, 1_000_000)
    sw = lab.ctl("switch")
    assert sw["txRing"] is False
    ports = {p["portID"]: p for p in sw["ports"]}
    assert ports[0x30]["txFrames"] > 500
    for p in ports.values():
        assert p["txRingFrames"] == 0 and p["txErrors"] == 0 and p["txRingFull"] == 0, p
    assert "no send ring" not in lab.read(lab.vigild_log)


@pytest.mark.parametrize("ring", [True, False], ids=["send-ring", "sendmmsg"])
def test_frames_that_cannot_go_out_are_counted(lab, ring):
    """A learnt port whose link has no carrier (its VM's end is down): what
    is switched to it is dropped by the kernel's driver and counted as send
    errors, every frame; once the link is back, frames go again."""
    a = lab.vm("a", "02:00:00:00:00:0a", ip="192.0.2.10/24")
    b = lab.vm("b", "02:00:00:00:00:0b", ip="192.0.2.11/24")
    lab.start_vigild(TWO_PORTS, extra=() if ring else ("--no-tx-ring",))
    a.ping(b.ip, count=2)
    before = lab.switch_port(0x30)
    b.run("ip", "link", "set", "eth0", "down")
    frames = 300
    r = a.python(COUNTED_FRAMES, a.mac, b.mac, frames, timeout=60)
    assert int(r.stdout) == frames

    def counted():
        p = lab.switch_port(0x30)
        return p["txErrors"] - before["txErrors"] == frames
    wait_for(counted, timeout=10, what="the send errors counted")
    after = lab.switch_port(0x30)
    assert after["up"], after
    assert after["txFrames"] == before["txFrames"], after
    assert after["switchDrops"] - before["switchDrops"] == frames
    assert lab.ctl("switch")["switchDrops"] >= frames
    b.run("ip", "link", "set", "eth0", "up")
    wait_for(lambda: b.run("ping", "-c", "1", "-W", "1", a.ip, check=False).returncode == 0,
             timeout=15, what="ping after the link came back")
    after = lab.switch_port(0x30)
    assert after["txErrors"] - before["txErrors"] == frames, after
