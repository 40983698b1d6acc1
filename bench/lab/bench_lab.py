#!/usr/bin/env python3
"""Packets per second and latency of vigild against the Linux bridge on a
veth lab.

Two VM namespaces, each joined by a veth pair to a switch namespace, where
in turn: the Linux bridge; the bridge with an nftables bridge-family white
list of 8 rules; vigild with the module's filter on both ports and no
feature; vigild with the port warden and a port white list of 8 entries
(in both white lists the sender's address is the last entry).  trafgen in
VM a sends 60-byte UDP frames to VM b as fast as it can for a few seconds;
what reaches VM b's interface is counted (and dropped there, before VM b's
stack), the median of a few runs kept.
Before each run, ping from a to b gives the round trip through the switch.

Addresses are from 192.0.2.0/24 only.  Everything made (namespaces, veth
pairs, vigild processes, files) is removed at the end, also on failure or
interruption.

Usage: bench_lab.py --vigild PATH [--before PATH] [--seconds 5] [--runs 3]
                    [--json FILE]
"""
import argparse
import json
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

PREFIX = "vbl"
NS_SW, NS_A, NS_B = f"{PREFIX}-sw", f"{PREFIX}-a", f"{PREFIX}-b"
MAC_A, MAC_B = "02:00:00:00:0b:0a", "02:00:00:00:0b:0b"
IP_A, IP_B = "192.0.2.10", "192.0.2.11"
# The white lists: seven other addresses, the sender's last.
WHITE = [f"192.0.2.{100 + i}" for i in range(7)] + [IP_A]


class BenchError(Exception):
    pass


def sh(*cmd, ns=None, check=True, timeout=30, capture=True):
    full = (["ip", "netns", "exec", ns] if ns else []) + [str(c) for c in cmd]
    r = subprocess.run(full, capture_output=capture, text=True, timeout=timeout)
    if check and r.returncode != 0:
        raise BenchError(f"{' '.join(full)}: exit {r.returncode}: {r.stderr.strip()}")
    return r


def cleanup():
    for ns in (NS_A, NS_B, NS_SW):
        subprocess.run(["ip", "netns", "del", ns], capture_output=True)


def make_lab(workdir):
    cleanup()
    for ns in (NS_SW, NS_A, NS_B):
        sh("ip", "netns", "add", ns)
        sh("ip", "link", "set", "lo", "up", ns=ns)
    for vm, ns, mac, ip, port in ((NS_A, NS_A, MAC_A, IP_A, "pa"), (NS_B, NS_B, MAC_B, IP_B, "pb")):
        sh("ip", "link", "add", "eth0", "netns", ns, "address", mac, "type", "veth",
           "peer", "name", port, "netns", NS_SW)
        sh("ip", "addr", "add", f"{ip}/24", "dev", "eth0", ns=ns)
        sh("ip", "link", "set", "eth0", "up", ns=ns)
        sh("ip", "link", "set", port, "up", ns=NS_SW)
        # A switch port carries frames of the link's size.
        for dev, where in (("eth0", ns), (port, NS_SW)):
            sh("ethtool", "-K", dev, "tso", "off", "gso", "off", "gro", "off", ns=where, check=False)
    # VM b counts the flood on its interface and drops it there: its own
    # stack's work on each frame (a route look-up, an ICMP error) would fall
    # on whatever hands the frame over, trafgen's CPU for the bridge, a
    # switching thread for vigild, and be measured as the switch's.
    sink = os.path.join(workdir, "sink.nft")
    with open(sink, "w") as f:
        f.write('table netdev vbl {\n  chain sink {\n'
                '    type filter hook ingress device "eth0" priority 0;\n'
                '    udp dport 9 drop\n  }\n}\n')
    sh("nft", "-f", sink, ns=NS_B)
    # Each VM knows the other's address, so no ARP runs during a measure.
    sh("ip", "neigh", "replace", IP_B, "lladdr", MAC_B, "dev", "eth0", "nud", "permanent", ns=NS_A)
    sh("ip", "neigh", "replace", IP_A, "lladdr", MAC_A, "dev", "eth0", "nud", "permanent", ns=NS_B)


def rx_packets():
    r = sh("cat", "/sys/class/net/eth0/statistics/rx_packets", ns=NS_B)
    return int(r.stdout.strip())


def ping_ms(count=20):
    """Median round trip from a to b, in milliseconds (the median: a busy
    machine's scheduler adds a long one now and then)."""
    r = sh("ping", "-c", count, "-i", "0.02", "-W", "1", IP_B, ns=NS_A, check=False)
    times = [float(t) for t in re.findall(r"time=([\d.]+) ms", r.stdout)]
    if not times:
        raise BenchError(f"ping through the switch failed: {r.stdout}{r.stderr}")
    return statistics.median(times)


TRAFGEN_CONF = """{
  /* Ethernet */ %(dst)s, %(src)s, c16(0x0800),
  /* IPv4 */ 0x45, 0x00, c16(46), c16(1), 0x40, 0x00, 64, 17, csumip(14, 33),
  %(sip)s, %(dip)s,
  /* UDP */ c16(40000), c16(9), c16(26), c16(0),
  fill(0x00, 18)
}
"""


def hexbytes(text, sep):
    return ", ".join(f"0x{int(p, 16 if sep == ':' else 10):02x}" for p in text.split(sep))


def measure(seconds, workdir):
    """Frames per second that reach VM b while trafgen floods from VM a."""
    conf = os.path.join(workdir, "udp60.cfg")
    with open(conf, "w") as f:
        f.write(TRAFGEN_CONF % {"dst": hexbytes(MAC_B, ":"), "src": hexbytes(MAC_A, ":"),
                                "sip": hexbytes(IP_A, "."), "dip": hexbytes(IP_B, ".")})
    before = rx_packets()
    start = time.monotonic()
    proc = subprocess.Popen(["ip", "netns", "exec", NS_A, "trafgen", "--dev", "eth0", "--conf",
                             conf, "--cpus", "1", "--no-sock-mem", "--notouch-irq", "--no-cpu-stats"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                            start_new_session=True)
    try:
        time.sleep(seconds)
    finally:
        # trafgen's sending processes are its children: the whole group stops.
        os.killpg(proc.pid, signal.SIGINT)
        try:
            _, err = proc.communicate(timeout=10)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            _, err = proc.communicate()
    elapsed = time.monotonic() - start
    if proc.returncode not in (0, -signal.SIGINT, 130):
        raise BenchError(f"trafgen failed ({proc.returncode}): {err}")
    time.sleep(0.3)  # what is still on its way arrives
    return (rx_packets() - before) / elapsed


# --------------------------------------------------------------- switches
class Bridge:
    def __init__(self, nft):
        self.nft = nft

    def start(self, workdir):
        sh("ip", "link", "add", "br0", "type", "bridge", "stp_state", "0", "forward_delay", "0",
           ns=NS_SW)
        for port in ("pa", "pb"):
            sh("ip", "link", "set", port, "master", "br0", ns=NS_SW)
        sh("ip", "link", "set", "br0", "up", ns=NS_SW)
        if self.nft:
            rules = "".join(f'    iifname "pa" ip saddr {ip} accept\n' for ip in WHITE)
            ruleset = ("table bridge vbl {\n  chain forward {\n"
                       "    type filter hook forward priority 0; policy accept;\n"
                       f"{rules}"
                       '    iifname "pa" ether type arp accept\n'
                       '    iifname "pa" drop\n  }\n}\n')
            path = os.path.join(workdir, "white.nft")
            with open(path, "w") as f:
                f.write(ruleset)
            sh("nft", "-f", path, ns=NS_SW)

    def stats(self):
        return {}

    def stop(self):
        if self.nft:
            sh("nft", "delete", "table", "bridge", "vbl", ns=NS_SW, check=False)
        sh("ip", "link", "del", "br0", ns=NS_SW, check=False)


class Vigild:
    def __init__(self, path, warden):
        self.path = path
        self.warden = warden
        self.proc = None

    def start(self, workdir):
        self.control = os.path.join(workdir, "vigild.sock")
        lines = ["load", "portset add vs0", "port add vs0 0x20", "port add vs0 0x30",
                 "prop write 0x20 enabled text:true", "prop write 0x30 enabled text:true"]
        if self.warden:
            entries = ";".join(f"ip={ip}/32" for ip in WHITE)
            lines.append(f'security 0x20 features=0x40 port="{entries}"')
        lines += ["port attach 0x20 pa", "port attach 0x30 pb"]
        script = os.path.join(workdir, "vigild.vsim")
        with open(script, "w") as f:
            f.write("\n".join(lines) + "\n")
        self.log = open(os.path.join(workdir, "vigild.log"), "w+")
        self.proc = subprocess.Popen(["ip", "netns", "exec", NS_SW, self.path, "--script", script,
                                      "--control", self.control, "--stop-on-error"],
                                     stdout=self.log, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                self.log.seek(0)
                raise BenchError(f"vigild ended at start-up:\n{self.log.read()}")
            try:
                if self.ask("uptime").get("ok"):
                    break
            except OSError:
                pass
            time.sleep(0.1)
        else:
            raise BenchError("vigild's control socket did not come")
        ports = self.ask("switch")["ports"]
        if not all(p["up"] for p in ports) or len(ports) != 2:
            raise BenchError(f"vigild's ports are not up: {ports}")

    def ask(self, line):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(10)
            s.connect(self.control)
            s.sendall((line + "\n").encode())
            data = b""
            while not data.endswith(b"\n"):
                chunk = s.recv(65536)
                if not chunk:
                    break
                data += chunk
        return json.loads(data)

    def stats(self):
        sw = self.ask("switch")
        out = {"socketDrops": sw.get("socketDrops"), "switchDrops": sw.get("switchDrops")}
        ports = {p["portID"]: p for p in sw["ports"]}
        a = ports.get(0x20, {})
        out["filterDrops"] = a.get("rxDropped")
        if out["socketDrops"] is None:  # a vigild that does not total them
            out["socketDrops"] = sum(p.get("rxSocketDrops", 0) for p in sw["ports"])
        return out

    def stop(self):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None
        self.log.close()


def run_config(name, switch, args, workdir):
    switch.start(workdir)
    try:
        # A frame each way: vigild learns where the VMs are.
        ping_ms(count=2)
        latency = ping_ms()
        runs = []
        for _ in range(args.runs):
            runs.append(measure(args.seconds, workdir))
        result = {"name": name, "runs_pps": runs, "pps": statistics.median(runs),
                  "latency_ms": latency}
        result.update(switch.stats())
        return result
    finally:
        switch.stop()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--vigild", required=True, help="vigild to measure")
    ap.add_argument("--before", help="another vigild to measure in the same run (main's)")
    ap.add_argument("--seconds", type=float, default=5.0)
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--json", help="write the results there")
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("bench-lab: needs root (it makes network namespaces and veth pairs)")
    for prog in ("trafgen", "nft", "ping", "ethtool"):
        if shutil.which(prog) is None:
            sys.exit(f"bench-lab: {prog} is missing (scripts/install-deps.sh installs it)")

    configs = [("bridge", Bridge(nft=False)), ("bridge+nft8", Bridge(nft=True))]
    if args.before:
        configs += [("before vigild", Vigild(args.before, False)),
                    ("before vigild+warden8", Vigild(args.before, True))]
    configs += [("vigild", Vigild(args.vigild, False)),
                ("vigild+warden8", Vigild(args.vigild, True))]

    workdir = tempfile.mkdtemp(prefix="bench-lab-")
    results = []
    # The machine's load around the run: with other work on the cores, the
    # absolute rates mean little and only the ratios of one run compare.
    load_before = os.getloadavg()

    def interrupted(signo, _frame):
        raise KeyboardInterrupt(f"signal {signo}")

    signal.signal(signal.SIGTERM, interrupted)
    try:
        make_lab(workdir)
        for name, switch in configs:
            print(f"bench-lab: {name} ...", file=sys.stderr, flush=True)
            results.append(run_config(name, switch, args, workdir))
    finally:
        for _, switch in configs:
            if isinstance(switch, Vigild):
                switch.stop()
        cleanup()
        shutil.rmtree(workdir, ignore_errors=True)

    load_after = os.getloadavg()
    base = results[0]
    print(f"load average {load_before[0]:.2f} before the run, {load_after[0]:.2f} after")
    print(f"{'switch':<24}{'kpps':>9}{'x bridge':>10}{'ping ms':>10}{'x bridge':>10}"
          f"{'lost in vigild':>16}")
    for r in results:
        r["ratio_pps"] = r["pps"] / base["pps"] if base["pps"] else None
        r["ratio_latency"] = r["latency_ms"] / base["latency_ms"] if base["latency_ms"] else None
        lost = ""
        if "socketDrops" in r:
            lost = f"{r['socketDrops']}+{r.get('switchDrops') or 0}"
        print(f"{r['name']:<24}{r['pps'] / 1000:>9.1f}{r['ratio_pps']:>10.2f}"
              f"{r['latency_ms']:>10.3f}{r['ratio_latency']:>10.2f}{lost:>16}")
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"seconds": args.seconds, "runs": args.runs, "frame": 60,
                       "loadavg": {"before": load_before, "after": load_after},
                       "results": results}, f, indent=2)
            f.write("\n")
        print(f"bench-lab: results in {args.json}", file=sys.stderr)


if __name__ == "__main__":
    try:
        main()
    except BenchError as e:
        sys.exit(f"bench-lab: {e}")
    except KeyboardInterrupt:
        sys.exit("bench-lab: interrupted; everything made is removed")
