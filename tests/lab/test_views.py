"""vigilctl's management views against a running vigild: a port's bindings
after a real DHCP lease and ARP traffic, its configuration, counters, white
lists, ignore list and BPDU addresses, as tables and as JSON; deletes of one
binding, by method and of all; the delete-on-expiry switch; and `watch`
showing a lease arrive and go as it happens."""
import json
import signal
import time

from lab import LabError, wait_for

UPLINK_MAC = "02:00:00:00:01:01"
A_MAC = "02:00:00:00:02:0a"
B_MAC = "02:00:00:00:02:0b"

# Port 0x10 is the uplink (no filter); 0x20 (VM A) and 0x30 (VM B) snoop DHCP
# and ARP.  Port 0x40 has fabric names of its own and no interface.
SWITCH = """
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
port add vs0 0x30
port add vs0 0x40 fabswitch=dvs-lab fabport=vm-d
prop write 0x20 enabled text:true
prop write 0x30 enabled text:true
prop write 0x40 enabled text:true
discovery 0x20 dhcp=1 arp=1
discovery 0x30 dhcp=1 arp=1
discovery 0x40 dhcp=1
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


def rows_of(lab, port, v6=False):
    """The rows of `vigilctl bindings PORT [--v6]`, by column title."""
    words = ["bindings", port] + (["--v6"] if v6 else [])
    text = lab.view(*words)
    if "no IPv6 bindings" in text or "no IPv4 bindings" in text:
        return []
    return lab.table(text, "#")


def row_with_ip(lab, port, ip):
    for row in rows_of(lab, port):
        if row["IP"] == ip:
            return row
    return None


def test_bindings_config_and_stats_after_a_lease(lab):
    up, a, b = setup_lan(lab)
    ip = lab.dhclient(a)
    row = wait_for(lambda: row_with_ip(lab, "0x20", ip), timeout=5,
                   what="the lease in vigilctl bindings")
    assert row["MAC"] == A_MAC
    assert row["METHOD"] == "DHCP Snooping"
    assert row["LEASE (s)"] == "120"
    assert row["CLIENT MAC"] == A_MAC
    assert row["SERVER"] == "192.0.2.1"
    assert 0 < int(row["REMAINING (s)"]) <= 120
    assert row["VLAN"] == "0"
    # The port's id in decimal, and the title names the port and its
    # fabric names.
    text = lab.view("bindings", "32")
    assert text.startswith("port 0x20 (vs0/32): ")
    # The same as JSON: the management record under its field names.
    answer = lab.view_json("bindings", "0x20")
    assert answer["cmd"] == "mgmt" and answer["callback"] == "listVmi"
    assert answer["status"] == 0 and "raw" not in answer
    vmis = [e for e in answer["record"]["vmis"] if e["ip"] == ip]
    assert len(vmis) == 1
    assert vmis[0]["mac"] == A_MAC and vmis[0]["method"] == "DHCP Snooping"
    assert vmis[0]["lease"] == "120" and vmis[0]["server"] == "192.0.2.1"
    assert answer["record"]["numEntries"] == len(answer["record"]["vmis"])
    # No IPv6 bindings here: a line that says so, an empty list in JSON.
    assert lab.view("bindings", "0x20", "--v6") == "port 0x20 (vs0/32): no IPv6 bindings\n"
    assert lab.view_json("bindings", "0x20", "--v6")["record"]["v6Vmis"] == []
    # B has no binding of A's.
    assert lab.view("bindings", "0x30") == "port 0x30 (vs0/48): no IPv4 bindings\n"

    # config: the discovery methods, and one DHCP binding in use.
    text = lab.view("config", "0x20")
    assert text.startswith("port 0x20 (vs0/32): configuration\n")
    assert "features          DHCP snooping\n                  ARP snooping\n" in text
    assert "delete on expiry  on\n" in text
    db = {r["DATABASE"].strip(): r for r in lab.table(text, "DATABASE")}
    assert db["DHCP"]["IN USE"] == "1" and db["DHCP"]["LIMIT"] == "128"
    assert int(db["IPv4 bindings"]["IN USE"]) >= 1
    assert db["IPv4 bindings"]["LIMIT"] == "384"
    record = lab.view_json("config", "0x20")["record"]
    assert record["numDhcpVmis"] == "1"
    assert record["features"].startswith("DHCP snooping,ARP snooping")
    assert record["rateLimits"] == "None"

    # stats of both VM ports, one column each; the same counters by row.
    text = lab.view("stats", "0x20", "0x30")
    counters = lab.table(text, "COUNTER")
    assert [r["COUNTER"] for r in counters][:2] == ["statWardenV4Drops", "statWardenV6Drops"]
    assert len(counters) == 18
    assert all(r["0x20"].isdigit() and r["0x30"].isdigit() for r in counters)
    by_row = lab.table(lab.view("stats", "0x20", "0x30", "--rows"), "PORT")
    assert len(by_row) == 36
    assert {r["PORT"] for r in by_row} == {"0x20", "0x30"}
    answer = lab.view_json("stats", "0x20", "0x30")
    assert answer["ports"] == ["vs0/32", "vs0/48"]
    assert [p["status"] for p in answer["record"]["ports"]] == [0, 0]

    # The uplink has no filter: the module says so, and vigilctl exits 1.
    err = lab.view("bindings", "0x10", rc=1)
    assert "port 0x10 (vs0/16): Not found (0xbad0003)" in err
    err = lab.view("stats", "0x20", "0x10", rc=1)
    assert "port 0x10 (vs0/16): Not found" in err
    # A port vigild doesn't have.
    assert "unknown port 0x99" in lab.view("config", "0x99", rc=1)
    # A port with fabric names of its own: by its names, or by its id with
    # them given; by its id alone the module finds no such port.
    assert lab.view("config", "dvs-lab/vm-d").startswith("port dvs-lab/vm-d: configuration\n")
    assert lab.view("config", "0x40", "--fabswitch", "dvs-lab", "--fabport", "vm-d").startswith(
        "port 0x40 (dvs-lab/vm-d): configuration\n")
    assert "port 0x40 (vs0/64): Not found" in lab.view("config", "0x40", rc=1)
    # Usage errors exit 2 without asking vigild.
    assert "PORT" in lab.view("bindings", rc=2)
    assert "bad port" in lab.view("bindings", "vm1", rc=2)
    assert lab.ctl("check")["violations"] == []


def test_white_lists_ignore_list_bpdu_and_counters(lab):
    up, a, b = setup_lan(lab, server=False)
    a.add_ip("192.0.2.20/24")
    # The port warden with a port white list, the BPDU filter without the
    # spanning tree address.
    white = f"port=mac={A_MAC},ip=192.0.2.20/32;vlan=0,ip=2001:db8::20/128"
    lab.ctl("security", "0x20", "features=0x44", white, "bpduExclude=01:80:c2:00:00:00")
    text = lab.view("whitelist", "0x20")
    assert text.startswith("port 0x20 (vs0/32): 0 switch white list entries, "
                           "2 port white list entries\n")
    rows = lab.table(text, "LIST")
    assert rows == [
        {"LIST": "port", "VLAN": "0", "MAC": A_MAC, "IP": "192.0.2.20/32"},
        {"LIST": "port", "VLAN": "0", "MAC": "Any", "IP": "2001:db8::20/128"},
    ]
    record = lab.view_json("whitelist", "0x20")["record"]
    assert record["numPortEntries"] == 2 and record["switchEntries"] == []
    assert record["portEntries"][0] == {"vlan": "0", "mac": A_MAC, "ip": "192.0.2.20/32"}
    # The module writes IPv6 groups in full; the table compresses them.
    assert record["portEntries"][1]["ip"] == "2001:db8:0:0:0:0:0:20/128"
    # B has no white list.
    assert "0 port white list entries" in lab.view("whitelist", "0x30")

    # The ignore list, written by vigild's own ignorelist command (ENTRIES
    # after the port: passed on), read back by the view.
    assert lab.view("ignorelist", "0x20") == "port 0x20 (vs0/32): the ignore list is empty\n"
    lab.ctl("ignorelist", "0x20", "ip=192.0.2.99;mac=02:00:00:00:00:99,ip=2001:db8::99")
    rows = lab.table(lab.view("ignorelist", "0x20"), "VLAN")
    assert rows == [
        {"VLAN": "0", "MAC": "Any", "IP": "192.0.2.99/32"},
        {"VLAN": "0", "MAC": "02:00:00:00:00:99", "IP": "2001:db8::99/128"},
    ]
    assert lab.view_json("ignorelist", "0x20")["record"]["numEntries"] == 2

    # The BPDU addresses filtered: the spanning tree address excluded.
    text = lab.view("bpdu", "0x20")
    macs = [r["MAC"] for r in lab.table(text, "#")]
    assert "01:80:c2:00:00:00" not in macs
    assert "01:80:c2:00:00:01" in macs
    assert text.startswith(f"port 0x20 (vs0/32): {len(macs)} BPDU destinations filtered\n")
    assert lab.view_json("bpdu", "0x20")["record"]["macs"] == macs
    # Off on B: the module answers "not enabled", vigilctl exits 1 (with
    # --json the answer is printed all the same).
    assert "Not enabled (0xbad0030): the BPDU filter is not on" in lab.view("bpdu", "0x30", rc=1)
    assert lab.view_json("bpdu", "0x30", rc=1)["status"] == 0xbad0030

    # A sends from an address its white list doesn't allow: the warden
    # counts what it drops.
    a.run("ip", "addr", "add", "192.0.2.21/24", "dev", "eth0")
    assert not a.ping("192.0.2.1", count=2, src="192.0.2.21", check=False)

    def warden_drops():
        rows = {r["COUNTER"]: r for r in lab.table(lab.view("stats", "0x20"), "COUNTER")}
        return sum(int(rows[name]["0x20"])
                   for name in ("statWardenV4Drops", "statWardenArpDrops"))

    assert wait_for(warden_drops, timeout=5, what="the warden's drops in vigilctl stats") > 0
    state = lab.stats(0x20)
    record = lab.view_json("stats", "0x20")["record"]["ports"][0]
    # The counters are the statistics block word for word, low word first.
    assert record["counters"][0] == state["statWardenV4Drops"] & 0xffffffff
    assert record["counters"][4] == state["statWardenArpDrops"] & 0xffffffff


def test_delete_bindings_and_delete_on_expiry(lab):
    up, a, b = setup_lan(lab)
    lease = lab.dhclient(a)
    # A second, static address of A's makes an ARP binding.
    a.run("ip", "addr", "add", "192.0.2.20/24", "dev", "eth0")
    a.ping("192.0.2.1", count=2, src="192.0.2.20")

    def methods():
        return {r["IP"]: r["METHOD"] for r in rows_of(lab, "0x20")}

    wait_for(lambda: methods().get("192.0.2.20") == "ARP Snooping", timeout=5,
             what="the ARP binding")
    assert methods()[lease] == "DHCP Snooping"
    lab.messages()  # from here on

    # One binding, by VLAN, MAC and address.
    text = lab.view("delete", "0x20", "--vlan", "0", "--mac", A_MAC, "--ip", "192.0.2.20")
    assert text == (f"port 0x20 (vs0/32): delete the binding VLAN 0 {A_MAC} 192.0.2.20: ok\n")
    assert "192.0.2.20" not in methods() and lease in methods()
    removed = wait_for(lambda: [m for m in lab.messages()
                                if m["name"] == "portdb.entry.removed" and m["ip"] == "192.0.2.20"],
                       timeout=5, what="portdb.entry.removed of the ARP binding")
    assert removed[0]["portID"] == 0x20

    # By method: ARP goes, DHCP stays.
    a.ping("192.0.2.1", count=2, src="192.0.2.20")
    wait_for(lambda: "192.0.2.20" in methods(), timeout=5, what="the ARP binding again")
    answer = lab.view_json("delete", "0x20", "--methods", "arp")
    assert answer["callback"] == "delVmi" and answer["status"] == 0
    assert "192.0.2.20" not in methods() and methods()[lease] == "DHCP Snooping"
    # DHCP goes by method too.
    assert lab.view("delete", "0x20", "--methods", "dhcp,nd") == (
        "port 0x20 (vs0/32): delete the DHCP and ND bindings: ok\n")
    assert lease not in methods()

    # All: the ARP binding learnt again and a DHCP lease go at once.
    a.ping("192.0.2.1", count=2, src="192.0.2.20")
    ip_b = lab.dhclient(b)
    wait_for(lambda: "192.0.2.20" in methods(), timeout=5, what="the ARP binding again")
    assert row_with_ip(lab, "0x30", ip_b) is not None
    assert lab.view("delete", "0x20", "--all") == (
        "port 0x20 (vs0/32): delete every binding but the static ones: ok\n")
    assert "192.0.2.20" not in methods()
    # B's lease is B's port's: still there.
    assert row_with_ip(lab, "0x30", ip_b)["METHOD"] == "DHCP Snooping"
    lab.view("delete", "0x30", "--all")
    assert rows_of(lab, "0x30") == []

    # Usage errors: exit 2, nothing sent.
    assert "give one of" in lab.view("delete", "0x20", rc=2)
    assert "give one of" in lab.view("delete", "0x20", "--all", "--methods", "arp", rc=2)
    assert "bad method" in lab.view("delete", "0x20", "--methods", "static", rc=2)
    assert "--mac and --ip" in lab.view("delete", "0x20", "--mac", A_MAC, rc=2)

    # Delete on expiry: on by default; off and on again, as the module
    # holds it and as config shows it.
    assert lab.view("delete-on-expiry") == "delete on expiry: on\n"
    assert lab.view("delete-on-expiry", "off") == "delete on expiry: off\n"
    assert lab.ctl("module", "delOnExpiry")["delOnExpiry"] == 0
    assert lab.view("delete-on-expiry") == "delete on expiry: off\n"
    assert "delete on expiry  off\n" in lab.view("config", "0x20")
    assert lab.view_json("config", "0x20")["record"]["delOnExpiry"] == "0"
    answer = lab.view_json("delete-on-expiry", "on")
    assert answer["callback"] == "delExpiry" and answer["status"] == 0
    assert lab.ctl("module", "delOnExpiry")["delOnExpiry"] == 1
    assert lab.view_json("delete-on-expiry")["delOnExpiry"] == 1
    assert "on or off" in lab.view("delete-on-expiry", "maybe", rc=2)
    assert lab.ctl("check")["violations"] == []


def test_watch_shows_a_lease_arrive_and_go(lab):
    up, a, b = setup_lan(lab)
    proc, log = lab.watch()
    json_proc, json_log = lab.watch("--json", "--count", "1", name="watch-json")
    # Both watchers are at the journal's end before the lease starts.
    time.sleep(0.5)
    assert proc.poll() is None, lab.read(log)
    ip = lab.dhclient(a)

    def added():
        return [line for line in lab.read(log).splitlines()
                if " added " in line and f" {ip} " in line]

    # Within a few seconds of dhclient's lease.
    lines = wait_for(added, timeout=5, what=f"watch to show the lease:\n{lab.read(log)}")
    words = lines[0].split()
    # HH:MM:SS.mmm added port 0x20 vs0 vlan 0 MAC IP DHCP bound
    assert words[1:] == ["added", "port", "0x20", "vs0", "vlan", "0", A_MAC, ip, "DHCP",
                         "bound"], lines[0]
    assert len(words[0]) == 12 and words[0][2] == ":" and words[0][8] == "."
    # The JSON watcher printed that event and ended (--count 1).
    assert json_proc.wait(timeout=5) == 0
    event = json.loads(lab.read(json_log).splitlines()[0])
    assert event["name"] == "portdb.entry.added" and event["ip"] == ip
    assert event["portID"] == 0x20 and event["mac"] == A_MAC and event["seq"] >= 1
    # Watching takes nothing away: `messages` has the event too.
    assert [m for m in lab.messages()
            if m["name"] == "portdb.entry.added" and m["ip"] == ip]

    # The release: a removed line.
    lab.dhclient_release(a)
    wait_for(lambda: [line for line in lab.read(log).splitlines()
                      if " removed " in line and f" {ip} " in line],
             timeout=5, what=f"watch to show the release:\n{lab.read(log)}")
    # SIGTERM ends it cleanly.
    proc.send_signal(signal.SIGTERM)
    assert proc.wait(timeout=5) == 0
    # --all begins with what vigild still keeps; --duration ends it.
    code, out, err = lab.ctl_raw("watch", "--all", "--duration", "0.5")
    assert code == 0, err
    kept = out.splitlines()
    assert any(" added " in line and f" {ip} " in line for line in kept)
    assert any(" removed " in line and f" {ip} " in line for line in kept)
    # vigild's events: sequence numbers, and nothing after the newest.
    events = lab.ctl("events", "after=0")
    seqs = [e["seq"] for e in events["events"]]
    assert seqs == sorted(seqs) and seqs[-1] == events["last"]
    assert lab.ctl("events", f"after={events['last']}")["events"] == []
    if proc.poll() is None:
        raise LabError("watch did not end")
