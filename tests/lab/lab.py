"""Network lab for vigild: network namespaces joined through vigild by veth
pairs, real programs in them, and vigilctl to look inside the switch.

Every Lab makes its own namespaces (named after the process and a counter),
and removes everything it made when it is closed: the programs it started,
vigild, the namespaces and with them the veth pairs.  Addresses come from
192.0.2.0/24, 198.51.100.0/24 and 2001:db8::/32 only, and every wait is
bounded.  IPv6 is off in a namespace unless it is asked for.
"""
import itertools
import json
import os
import signal
import subprocess
import sys
import time

VIGILD = os.environ.get("VIGILD", "vigild")
VIGILCTL = os.environ.get("VIGILCTL", "vigilctl")
# The interpreter that runs the lab (with scapy) runs its scripts too.
PYTHON = sys.executable

_counter = itertools.count()


class LabError(AssertionError):
    pass


def wait_for(predicate, timeout, interval=0.2, what="condition"):
    """Calls predicate until it answers something true; that answer.  Fails
    after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise LabError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)


class VM:
    """A namespace behind one switch port: eth0 inside, `port_if` on the
    switch's side."""

    def __init__(self, lab, name, ns, mac, port_if):
        self.lab = lab
        self.name = name
        self.ns = ns
        self.mac = mac
        self.port_if = port_if
        self.ifname = "eth0"
        self.ip = None
        self.ip6 = None

    def run(self, *cmd, **kw):
        return self.lab.run(self.ns, *cmd, **kw)

    def spawn(self, *cmd, **kw):
        return self.lab.spawn(self.ns, *cmd, **kw)

    def python(self, script, *args, timeout=30, check=True):
        return self.run(PYTHON, "-c", script, *map(str, args), timeout=timeout, check=check)

    def spawn_python(self, script, *args, name="python"):
        return self.spawn(PYTHON, "-c", script, *map(str, args), name=name)

    def add_ip(self, cidr):
        self.run("ip", "addr", "add", cidr, "dev", self.ifname)
        if self.ip is None:
            self.ip = cidr.split("/")[0]

    def add_ip6(self, cidr):
        """An IPv6 address on eth0; the kernel runs duplicate address
        detection for it (see wait_dad)."""
        self.run("ip", "-6", "addr", "add", cidr, "dev", self.ifname)
        if self.ip6 is None:
            self.ip6 = cidr.split("/")[0]

    def addresses6(self, scope="global"):
        """The IPv6 addresses of eth0 in `scope`: {address: flags}."""
        r = self.run("ip", "-6", "-o", "addr", "show", "dev", self.ifname, "scope", scope)
        found = {}
        for line in r.stdout.splitlines():
            words = line.split()
            if "inet6" in words:
                at = words.index("inet6")
                found[words[at + 1].split("/")[0]] = words[at + 2:]
        return found

    def wait_dad(self, timeout=6):
        """Waits until duplicate address detection has ended for every IPv6
        address of eth0, link-local included; fails if one was refused."""
        def done():
            text = self.run("ip", "-6", "-o", "addr", "show", "dev", self.ifname).stdout
            if "dadfailed" in text:
                raise LabError(f"{self.name}: duplicate address detection failed:\n{text}")
            return "inet6" in text and "tentative" not in text
        wait_for(done, timeout=timeout, what=f"duplicate address detection on {self.name}")

    def snmp6(self, counter):
        """A counter of the namespace's /proc/net/snmp6 (Icmp6InEchos...)."""
        for line in self.run("cat", "/proc/net/snmp6").stdout.splitlines():
            words = line.split()
            if len(words) == 2 and words[0] == counter:
                return int(words[1])
        raise LabError(f"{self.name}: no {counter} in /proc/net/snmp6")

    def ping(self, dst, count=3, src=None, timeout=10, check=True):
        if check:
            # An address that failed to resolve before stays failed for a
            # while: start from an empty neighbour table.
            self.run("ip", "neigh", "flush", "dev", self.ifname, check=False)
        cmd = ["ping", "-n", "-q", "-c", str(count), "-i", "0.2", "-W", "1"]
        if ":" in dst:
            cmd.append("-6")
        if src:
            cmd += ["-I", src]
        r = self.run(*cmd, dst, timeout=timeout, check=False)
        if check and r.returncode != 0:
            raise LabError(f"{self.name}: ping {dst} failed:\n{r.stdout}{r.stderr}")
        return r.returncode == 0


class Control:
    """vigilctl against the control socket `self.control`, and the views of
    the answers that tests read."""

    def ctl_raw(self, *words, text=False, timeout=30):
        cmd = [VIGILCTL, "--control", self.control, "--timeout", str(timeout)]
        if text:
            cmd.append("--text")
        r = subprocess.run(cmd + [str(w) for w in words], capture_output=True, text=True,
                           timeout=timeout + 5)
        return r.returncode, r.stdout, r.stderr

    def ctl(self, *words, ok=True, timeout=30):
        rc, out, err = self.ctl_raw(*words, timeout=timeout)
        if rc == 2 or not out.strip():
            raise LabError(f"vigilctl {' '.join(map(str, words))}: no answer ({rc}): {err}")
        answer = json.loads(out)
        if ok and not answer.get("ok"):
            raise LabError(f"vigilctl {' '.join(map(str, words))}: {answer}")
        return answer

    def state(self, port):
        return self.ctl("state", port)["filter"]

    def stats(self, port):
        return self.state(port)["stats"]

    def bindings(self, port):
        return self.state(port)["vmiList"]

    def bindings6(self, port):
        return self.state(port)["v6VmiList"]

    def messages(self):
        """Portset messages delivered since the last call (also kept in
        messages_seen)."""
        new = self.ctl("messages")["messages"]
        self.messages_seen.extend(new)
        return new

    def view(self, *words, rc=0, timeout=30):
        """The text that one of vigilctl's own commands (bindings, config,
        stats, whitelist, ignorelist, bpdu, delete, delete-on-expiry)
        prints; fails unless it exits with `rc`.  With rc != 0 its standard
        error is given instead."""
        code, out, err = self.ctl_raw(*words, timeout=timeout)
        if code != rc:
            raise LabError(f"vigilctl {' '.join(map(str, words))}: exit {code}, not {rc}:\n"
                           f"{out}{err}")
        return out if rc == 0 else err

    def view_json(self, *words, rc=0, timeout=30):
        """The JSON answer of one of vigilctl's own commands (--json)."""
        code, out, err = self.ctl_raw("--json", *words, timeout=timeout)
        if code != rc or not out.strip():
            raise LabError(f"vigilctl --json {' '.join(map(str, words))}: exit {code}, not "
                           f"{rc}:\n{out}{err}")
        return json.loads(out)

    @staticmethod
    def table(text, first_column):
        """The rows of the aligned table in `text` whose header line begins
        with `first_column`, each a dict by column title.  Columns are
        found where the header's titles begin (titles are two blanks apart
        and may hold one)."""
        lines = text.splitlines()
        for at, line in enumerate(lines):
            if line.startswith(first_column + " "):
                break
        else:
            raise LabError(f"no table headed {first_column!r} in:\n{text}")
        header = lines[at]
        starts = [0] + [i + 2 for i in range(len(header) - 2)
                        if header[i:i + 2] == "  " and header[i + 2] != " "]
        titles = [header[a:b].strip() for a, b in zip(starts, starts[1:] + [None])]
        rows = []
        for line in lines[at + 1:]:
            if not line.strip():
                break
            cells = [line[a:b].strip() for a, b in zip(starts, starts[1:] + [None])]
            rows.append(dict(zip(titles, cells)))
        return rows

    def watch(self, *args, name="watch"):
        """`vigilctl watch` running in the background, its output (standard
        output and error) going to a log: (process, log path).  The lab
        stops it when it is closed."""
        return self.lab_spawn(None, VIGILCTL, "--control", self.control, "watch", *args,
                              name=name)

    def switch_port(self, port):
        for p in self.ctl("switch")["ports"]:
            if p["portID"] == port:
                return p
        raise LabError(f"port {port:#x} is not attached")


class Host(Control):
    """A further vigild of a lab, beside the lab's own: in the switch
    namespace, with its own start-up script, control socket and log.  The lab
    stops it when it is closed."""

    def lab_spawn(self, *args, **kw):
        return self.lab.spawn(*args, **kw)

    def __init__(self, lab, name, script, extra=()):
        self.lab = lab
        self.name = name
        self.control = os.path.join(lab.workdir, f"vigild-{name}.sock")
        self.messages_seen = []
        path = os.path.join(lab.workdir, f"start-{name}.vsim")
        with open(path, "w") as f:
            f.write(script)
        self.proc, self.log = lab.spawn(lab.sw, VIGILD, "--script", path, "--control",
                                        self.control, *extra, name=f"vigild-{name}")
        wait_for(lambda: self.proc.poll() is not None or self.ctl_raw("uptime")[0] == 0,
                 timeout=20, what=f"the control socket of vigild {name}")
        if self.proc.poll() is not None:
            raise LabError(f"vigild {name} ended at start-up:\n{lab.read(self.log)}")

    def stop(self, sig=signal.SIGTERM, timeout=15):
        """Stops this vigild with `sig`; the exit status and the log."""
        rc = self.lab.stop(self.proc, sig, timeout=timeout)
        return rc, self.lab.read(self.log)


class Lab(Control):
    def __init__(self, workdir):
        self.workdir = str(workdir)
        self.prefix = f"vl{os.getpid() % 100000}-{next(_counter)}"
        self.namespaces = []
        self.procs = []  # (name, Popen, log path)
        self.vigild = None
        self.control = os.path.join(self.workdir, "vigild.sock")
        self.messages_seen = []
        self.hosts = []  # further vigild processes (Host)
        self.sw = self.netns("sw")

    # ------------------------------------------------------------ basics
    def netns(self, name, ipv6=False):
        """A namespace with lo up.  Without `ipv6` its interfaces have no
        IPv6; with it, they are hosts with the kernel's defaults (duplicate
        address detection, router advertisements and SLAAC accepted), no
        temporary addresses and no unsolicited advertisements."""
        ns = f"{self.prefix}-{name}"
        subprocess.run(["ip", "netns", "add", ns], check=True, timeout=10)
        self.namespaces.append(ns)
        self.run(ns, "ip", "link", "set", "lo", "up")
        for key in ("all", "default"):
            if ipv6:
                self.run(ns, "sysctl", "-qw", f"net.ipv6.conf.{key}.disable_ipv6=0",
                         f"net.ipv6.conf.{key}.use_tempaddr=0",
                         f"net.ipv6.conf.{key}.ndisc_notify=0")
            else:
                self.run(ns, "sysctl", "-qw", f"net.ipv6.conf.{key}.disable_ipv6=1")
        return ns

    def run(self, ns, *cmd, timeout=15, check=True, input=None):
        full = ["ip", "netns", "exec", ns, *cmd] if ns else list(cmd)
        r = subprocess.run(full, capture_output=True, text=True, timeout=timeout,
                           input=input)
        if check and r.returncode != 0:
            raise LabError(f"{' '.join(full)} failed ({r.returncode}):\n{r.stdout}{r.stderr}")
        return r

    def spawn(self, ns, *cmd, name=None):
        name = name or os.path.basename(cmd[0])
        log = os.path.join(self.workdir, f"{name}-{len(self.procs)}.log")
        full = ["ip", "netns", "exec", ns, *cmd] if ns else list(cmd)
        with open(log, "w") as out:
            p = subprocess.Popen(full, stdout=out, stderr=subprocess.STDOUT,
                                 start_new_session=True)
        self.procs.append((name, p, log))
        return p, log

    def stop(self, proc, sig=signal.SIGTERM, timeout=5):
        if proc.poll() is not None:
            return proc.returncode
        try:
            os.killpg(proc.pid, sig)
        except ProcessLookupError:
            pass
        try:
            return proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            return proc.wait(timeout=5)

    def vm(self, name, mac, ip=None, offload=False, ipv6=False, peer_ns=None):
        """A namespace with eth0 (MAC `mac`) whose peer `p-NAME` is in the
        switch namespace.  Segmentation offload is off on eth0 (a switch
        port carries frames of the link's size); checksums stay offloaded
        unless `offload` is false... kept as the kernel sets them.  With
        `ipv6`, eth0 has IPv6 (a link-local address once it is up)."""
        ns = self.netns(name, ipv6=ipv6)
        port_if = f"p-{name}"
        self.run(None, "ip", "link", "add", "eth0", "netns", ns, "address", mac, "type", "veth",
                 "peer", "name", port_if, "netns", peer_ns or self.sw)
        self.run(ns, "ethtool", "-K", "eth0", "tso", "off", "gso", "off", check=False)
        self.run(ns, "ip", "link", "set", "eth0", "up")
        self.run(peer_ns or self.sw, "ip", "link", "set", port_if, "up")
        vm = VM(self, name, ns, mac, port_if)
        if ip:
            vm.add_ip(ip)
        return vm

    def link(self, ns_a, if_a, ns_b, if_b):
        """A veth pair between two namespaces of the lab, both ends up and
        without segmentation offload."""
        self.run(None, "ip", "link", "add", if_a, "netns", ns_a, "type", "veth", "peer",
                 "name", if_b, "netns", ns_b)
        for ns, ifname in ((ns_a, if_a), (ns_b, if_b)):
            self.run(ns, "ethtool", "-K", ifname, "tso", "off", "gso", "off", check=False)
            self.run(ns, "ip", "link", "set", ifname, "up")

    def bridge(self, ns, name, *ports):
        """A Linux bridge (no spanning tree, so its ports forward at once)
        in the namespace, with those interfaces as its ports."""
        self.run(ns, "ip", "link", "add", name, "type", "bridge", "stp_state", "0")
        self.run(ns, "ip", "link", "set", name, "up")
        for port in ports:
            self.run(ns, "ip", "link", "set", port, "master", name)

    def lab_spawn(self, *args, **kw):
        return self.spawn(*args, **kw)

    # ------------------------------------------------------------ vigild
    def host(self, name, script, extra=()):
        """A further vigild (a Host) running `script`, beside the lab's own."""
        host = Host(self, name, script, extra)
        self.hosts.append(host)
        return host

    def start_vigild(self, script, extra=()):
        path = os.path.join(self.workdir, "start.vsim")
        with open(path, "w") as f:
            f.write(script)
        self.vigild, self.vigild_log = self.spawn(
            self.sw, VIGILD, "--script", path, "--control", self.control, *extra, name="vigild")
        wait_for(lambda: self.vigild.poll() is not None or self.ctl_raw("uptime")[0] == 0,
                 timeout=20, what="vigild's control socket")
        if self.vigild.poll() is not None:
            raise LabError(f"vigild ended at start-up:\n{self.read(self.vigild_log)}")
        return self.vigild

    def stop_vigild(self, sig=signal.SIGTERM, timeout=15):
        """Stops vigild with `sig`; the exit status and the log."""
        rc = self.stop(self.vigild, sig, timeout=timeout)
        log = self.read(self.vigild_log)
        self.vigild = None
        return rc, log

    # ---------------------------------------------------------- programs
    def dnsmasq(self, vm, first, last, lease="2m", router=None, name="dnsmasq"):
        leases = os.path.join(self.workdir, f"{name}.leases")
        cmd = ["dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=0",
               f"--interface={vm.ifname}", "--bind-interfaces", "--dhcp-authoritative",
               "--no-ping", "--pid-file=", "--user=root", "--group=root",
               f"--dhcp-range={first},{last},255.255.255.0,{lease}",
               f"--dhcp-leasefile={leases}", "--log-dhcp"]
        if router:
            cmd.append(f"--dhcp-option=option:router,{router}")
        proc, log = vm.spawn(*cmd, name=name)
        wait_for(lambda: proc.poll() is not None or "DHCP, IP range" in self.read(log),
                 timeout=10, what=f"{name} to start")
        if proc.poll() is not None:
            raise LabError(f"{name} ended:\n{self.read(log)}")
        return proc

    def dnsmasq6(self, vm, first, last, lease="2m", name="dnsmasq6"):
        """dnsmasq serving stateful DHCPv6 only (no DNS, no router
        advertisements) on the VM's eth0, addresses `first` to `last` of a
        /64 that eth0 has an address in, for `lease` (valid and preferred
        lifetimes alike)."""
        leases = os.path.join(self.workdir, f"{name}.leases")
        cmd = ["dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=0",
               f"--interface={vm.ifname}", "--bind-interfaces", "--dhcp-authoritative",
               "--pid-file=", "--user=root", "--group=root",
               f"--dhcp-range={first},{last},64,{lease}",
               f"--dhcp-leasefile={leases}", "--log-dhcp"]
        proc, log = vm.spawn(*cmd, name=name)
        wait_for(lambda: proc.poll() is not None or "DHCPv6, IP range" in self.read(log),
                 timeout=10, what=f"{name} to start")
        if proc.poll() is not None:
            raise LabError(f"{name} ended:\n{self.read(log)}")
        return proc

    def radvd(self, vm, prefix, name="radvd"):
        """radvd on the VM's eth0, advertising `prefix` (on-link,
        autonomous) every 3 to 4 s and in answer to router solicitations.
        The namespace forwards IPv6, as a router's does."""
        conf = os.path.join(self.workdir, f"{name}.conf")
        with open(conf, "w") as f:
            f.write(f"interface {vm.ifname} {{\n"
                    "  AdvSendAdvert on;\n"
                    "  MinRtrAdvInterval 3;\n"
                    "  MaxRtrAdvInterval 4;\n"
                    f"  prefix {prefix} {{\n"
                    "    AdvOnLink on;\n"
                    "    AdvAutonomous on;\n"
                    "  };\n"
                    "};\n")
        os.chmod(conf, 0o644)
        vm.run("sysctl", "-qw", "net.ipv6.conf.all.forwarding=1")
        pid = os.path.join(self.workdir, f"{name}.pid")
        proc, log = vm.spawn("radvd", "--nodaemon", "--debug", "1", "--logmethod", "stderr",
                             "--config", conf, "--pidfile", pid, name=name)
        # radvd writes its pid file once its configuration is read.
        wait_for(lambda: proc.poll() is not None or os.path.exists(pid), timeout=10,
                 what=f"{name} to start")
        if proc.poll() is not None:
            raise LabError(f"{name} ended:\n{self.read(log)}")
        return proc

    def _dhclient_files(self, vm):
        base = os.path.join(self.workdir, f"dhclient-{vm.name}")
        conf, script = base + ".conf", base + ".sh"
        with open(conf, "w") as f:
            f.write("send dhcp-client-identifier = hardware;\n"
                    f"send host-name = \"{vm.name}\";\n"
                    "request subnet-mask, broadcast-address, routers;\n"
                    "timeout 10;\nretry 1;\ninitial-interval 1;\n")
        with open(script, "w") as f:
            f.write("#!/bin/sh\n"
                    "case \"$reason\" in\n"
                    "BOUND|RENEW|REBIND|REBOOT)\n"
                    "  if [ \"$old_ip_address\" != \"$new_ip_address\" ]; then\n"
                    "    ip -4 addr flush dev \"$interface\" scope global\n"
                    "    ip addr add \"$new_ip_address/$new_subnet_mask\" dev \"$interface\"\n"
                    "  fi ;;\n"
                    "EXPIRE|FAIL|RELEASE|STOP)\n"
                    "  ip -4 addr flush dev \"$interface\" scope global ;;\n"
                    "esac\nexit 0\n")
        os.chmod(script, 0o755)
        return conf, base + ".leases", base + ".pid", script

    def dhclient(self, vm, timeout=20, expect=True):
        """Runs dhclient on the VM until it is bound (its address), or, with
        expect=False, until it gives up (None)."""
        conf, leases, pid, script = self._dhclient_files(vm)
        proc, log = vm.spawn("dhclient", "-d", "-1", "-v", "-cf", conf, "-lf", leases, "-pf",
                             pid, "-sf", script, vm.ifname, name=f"dhclient-{vm.name}")
        vm.dhclient = proc

        def bound():
            text = self.read(log)
            for line in text.splitlines():
                if line.startswith("bound to "):
                    return line.split()[2]
            return "gave up" if proc.poll() is not None else None

        result = wait_for(bound, timeout=timeout, what=f"dhclient on {vm.name}")
        if result == "gave up":
            if expect:
                raise LabError(f"dhclient on {vm.name} got no lease:\n{self.read(log)}")
            return None
        if not expect:
            raise LabError(f"dhclient on {vm.name} got a lease {result}:\n{self.read(log)}")
        vm.ip = result
        return result

    def dhclient_release(self, vm, timeout=15):
        conf, leases, pid, script = self._dhclient_files(vm)
        if getattr(vm, "dhclient", None) is not None:
            self.stop(vm.dhclient)
            vm.dhclient = None
        vm.run("dhclient", "-r", "-v", "-cf", conf, "-lf", leases, "-pf", pid, "-sf", script,
               vm.ifname, timeout=timeout)

    def _dhclient6_files(self, vm):
        base = os.path.join(self.workdir, f"dhclient6-{vm.name}")
        conf, script = base + ".conf", base + ".sh"
        with open(conf, "w") as f:
            f.write("timeout 10;\n")
        # The address as the server gave it, with its lifetimes; gone again
        # on release, expiry or stop.
        with open(script, "w") as f:
            f.write("#!/bin/sh\n"
                    "case \"$reason\" in\n"
                    "BOUND6|RENEW6|REBIND6|REBOOT6)\n"
                    "  if [ -n \"$new_ip6_address\" ]; then\n"
                    "    ip -6 addr replace \"$new_ip6_address/$new_ip6_prefixlen\" dev "
                    "\"$interface\" valid_lft \"$new_max_life\" preferred_lft "
                    "\"$new_preferred_life\"\n"
                    "  fi ;;\n"
                    "EXPIRE6|RELEASE6|STOP6)\n"
                    "  if [ -n \"$old_ip6_address\" ]; then\n"
                    "    ip -6 addr del \"$old_ip6_address/$old_ip6_prefixlen\" dev "
                    "\"$interface\"\n"
                    "  fi ;;\n"
                    "esac\nexit 0\n")
        os.chmod(script, 0o755)
        return conf, base + ".leases", base + ".pid", script

    def dhclient6(self, vm, timeout=15):
        """Starts dhclient -6 (stateful, one IA_NA) on the VM and returns at
        once; the address it was bound to comes from dhclient6_bound.  The
        VM's link-local address must be past duplicate address detection."""
        conf, leases, pid, script = self._dhclient6_files(vm)
        proc, log = vm.spawn("dhclient", "-6", "-d", "-1", "-v", "-cf", conf, "-lf", leases,
                             "-pf", pid, "-sf", script, vm.ifname, name=f"dhclient6-{vm.name}")
        vm.dhclient6, vm.dhclient6_log = proc, log
        return proc

    def dhclient6_bound(self, vm, timeout=15):
        """Waits until the dhclient -6 of the VM is bound; the address."""
        def bound():
            text = self.read(vm.dhclient6_log)
            if "Bound to lease" in text:
                # The last address received: the Reply's.
                address = None
                for line in text.splitlines():
                    if line.startswith("RCV:") and "IAADDR" in line:
                        address = line.split("IAADDR")[1].split()[0]
                if address is None:
                    raise LabError(f"dhclient -6 on {vm.name} bound no address:\n{text}")
                return address
            if vm.dhclient6.poll() is not None:
                raise LabError(f"dhclient -6 on {vm.name} ended:\n{text}")
            return None

        return wait_for(bound, timeout=timeout, what=f"dhclient -6 on {vm.name}")

    def dhclient6_release(self, vm, timeout=15):
        """Stops the VM's dhclient -6, then releases its lease."""
        conf, leases, pid, script = self._dhclient6_files(vm)
        if getattr(vm, "dhclient6", None) is not None:
            self.stop(vm.dhclient6)
            vm.dhclient6 = None
        vm.run("dhclient", "-6", "-r", "-v", "-cf", conf, "-lf", leases, "-pf", pid, "-sf",
               script, vm.ifname, timeout=timeout)

    # ------------------------------------------------------------ helpers
    @staticmethod
    def read(path):
        try:
            with open(path, errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def close(self):
        errors = []
        if self.vigild is not None:
            rc, log = self.stop_vigild()
            if rc != 0:
                errors.append(f"vigild exited with {rc}:\n{log[-3000:]}")
        for host in self.hosts:
            if host.proc.poll() is None:
                rc, log = host.stop()
                if rc != 0:
                    errors.append(f"vigild {host.name} exited with {rc}:\n{log[-3000:]}")
        self.hosts = []
        for name, proc, _ in reversed(self.procs):
            if proc.poll() is None:
                self.stop(proc, timeout=3)
        for ns in reversed(self.namespaces):
            subprocess.run(["ip", "netns", "del", ns], capture_output=True, timeout=10)
        self.namespaces = []
        if errors:
            raise LabError("\n".join(errors))
