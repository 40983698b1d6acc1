#!/usr/bin/env python3
"""Fault sweep: every scenario script rerun with one injected failure per run.

For each tests/scenarios/NAME.vsim the sweep first runs the script as it is
(the reference run), counting the module heap allocations and the calls that
the simulated host can fail (`fault count`).  It then reruns the script once
for each of them:

  alloc N        `fault alloc N`: the N-th allocation of the run fails
  call NAME K    `fault call NAME STATUS after=K`: the (K+1)-th call of NAME
                 returns STATUS, a failure that call really returns

Each run must hold:

  crash       vigilsim ends by a signal, with status 2, or runs out of time
  stderr      nothing on standard error (lock-rank violations, panics,
              double releases, sanitizer reports)
  leak        every `unload` and `upgrade` reports no live allocation, frame,
              heap or callback
  invariant   every `check` answers with no violation
  busy        the worlds become idle wherever they did in the reference run
  forwarding  the probe sent at the end (after `fault clear`) gets the same
              verdicts as in the reference run on every port whose
              configuration and bindings are those of the reference run

The probe goes in before the script's last `unload` (one is added when the
script has none): for each port the script adds (at most eight), its state
and bindings, then unicast frames both ways (IPv4, ARP, IPv6) and a `check`.
A failure that changed what a port is configured with or has learnt (a
refused property write, a binding not learnt) leaves that port's probe
uncompared: the verdicts may differ then, and rightly.

Usage:
  fault-sweep.py --vigilsim PATH [--jobs N] [--every N] [--scenario NAME ...]
  fault-sweep.py --print-script NAME 'FAULT LINE'

--print-script writes the script of one run to standard output, to feed to
vigilsim from the source tree:
  scripts/fault-sweep.py --print-script dhcp_learning 'fault alloc 5' |
      build/default/tools/vigilsim -

Each scenario's line is printed (and flushed) as soon as the scenario is
done: its runs, its failing runs by kind, its time.  An interrupted sweep
(SIGINT, SIGTERM) ends the runs under way, prints the line of the scenario
it was in with what that scenario had done so far, and the total.

The exit status is 0 when no run failed, 1 otherwise, 2 for a usage error,
128 + the signal's number when the sweep was interrupted.
"""
import argparse
import concurrent.futures
import json
import os
import re
import shlex
import signal
import subprocess
import sys
import threading
import time

SRC_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCENARIO_DIR = os.path.join(SRC_DIR, "tests", "scenarios")
MODULE = None  # --module: the vigil.so that vigilsim loads (default: its own build's)

FAILURE = 0x2BAD0000
NOT_FOUND = 0xBAD0003
LIMIT = 0xBAD0006
BAD_PARAM = 0xBAD0007
NO_MEMORY = 0xBAD0014
OVERFLOW = 0xBAD0026
INTERRUPTED = 0xBAD0069

# The status each call fails with: one the call returns on a real host when
# it fails and what it was asked for stays undone: out of memory for what
# creates or inserts, not found for what looks up, a plain failure for what
# removes or unregisters (there "not found" would say that the thing is
# already gone, while the injected failure leaves it in place).  Calls that
# answer a pointer fail with a null one whatever the
# status.  A name missing here fails with FAILURE.
CALL_STATUS = {
    "FABClientPortRegister": NO_MEMORY,
    "FABClientPortUnregister": FAILURE,
    "FABTransitClientRuntimeRegister": NO_MEMORY,
    "FABTransitClientRuntimeUnregister": FAILURE,
    "GetPortsetData": FAILURE,
    "GlxPortCommand": NOT_FOUND,
    "HeapCreate": NO_MEMORY,
    "IOChainInsert": NO_MEMORY,
    "IOChainRemove": FAILURE,
    "IOChainSetMinPktMappedLen": BAD_PARAM,
    "LockDomainCreate": NO_MEMORY,
    "LogRegister": NO_MEMORY,
    "MA2VA": NOT_FOUND,
    "MgmtDestroy": FAILURE,
    "MgmtInit": NO_MEMORY,
    "ModuleGetName": OVERFLOW,
    "ModulePushId": FAILURE,
    "ModuleSetHeapID": NOT_FOUND,
    "NameFormat": BAD_PARAM,
    "NameInitialize": BAD_PARAM,
    "NetEventPortsetEventSubscribe": NO_MEMORY,
    "NetEventPortsetEventUnsubscribe": FAILURE,
    "PktAttrGet": NOT_FOUND,
    "PktCopy": NO_MEMORY,
    "PktCopyBytesOut": BAD_PARAM,
    "PktFrameMappedPointerGet": FAILURE,
    "PktHeaderFind": NOT_FOUND,
    "PktListIterRemovePkt": FAILURE,
    "PktListIterReplace": FAILURE,
    "PktSgArrayGet": FAILURE,
    "PktSgElemGet": FAILURE,
    "PortFindByFABPortID": NOT_FOUND,
    "PortFlagIsSet": NOT_FOUND,
    "PortVoltaliteDataGet": NOT_FOUND,
    "PortVoltaliteDataSet": NO_MEMORY,
    "PortVoltaliteDataUnset": BAD_PARAM,
    "PortsetAcquireByName": NOT_FOUND,
    "PortsetAcquireByPortID": NOT_FOUND,
    "PortsetFindByPortID": NOT_FOUND,
    "PortsetForAllPorts": NOT_FOUND,
    "PortsetForAllPortsets": FAILURE,
    "PortsetLookupFABClassName": NOT_FOUND,
    "PortsetPostMessage": NO_MEMORY,
    "PortsetRelease": BAD_PARAM,
    "PriQCreate": NO_MEMORY,
    "PriQDestroy": BAD_PARAM,
    "PriQExtract": NOT_FOUND,
    "PriQFirst": NOT_FOUND,
    "PriQInsert": LIMIT,
    "PriQRekey": NOT_FOUND,
    "PriQUsedElems": BAD_PARAM,
    "RtmClientRegister": NO_MEMORY,
    "RtmClientUnregister": FAILURE,
    "SpinlockCreate": NO_MEMORY,
    "StringFormat": OVERFLOW,
    "VNICHandleGet": NOT_FOUND,
    "VNICTypeGet": NOT_FOUND,
    "WardenHashInsert": NO_MEMORY,
    "WardenHashRemove": FAILURE,
    "WorldCreate": NO_MEMORY,
    "WorldDestroy": NOT_FOUND,
    "WorldWait": INTERRUPTED,
    "WorldWaitForDeath": NOT_FOUND,
}
# Not swept: failing the allocator call is what the allocation sweep does;
# the lookup of a port's filter fails only for a port that has none, so a
# failure injected while the filter is there tells the module something no
# host would (the one real case, the filter leaving the port between two
# lookups of a batch, is the scenario failed_relock).  The two calls that
# end a world likewise fail only for a world that is already gone ("not
# found"); failed while the world still runs, they have the module free
# what the world is using, and no module can stop a world that neither
# wakes to end nor can be waited for.
CALLS_NOT_SWEPT = {"HeapAllocWithRA", "PortVoltaliteDataGet", "WorldDestroy",
                   "WorldWaitForDeath"}

# Calls that remove or unregister.  When the host refuses one, what it was
# to remove stays with the host, and at unload the host drops it and says so
# ("module unloaded with its ... still in place", callbacksLeft): that one
# object is the injected failure's own outcome, not the module's defect
# (for the filter slot's unset, the object is the filter and its memory).
# Anything more (a second object, a heap leak, a crash) still fails the run.
REMOVALS = {
    "FABClientPortUnregister", "FABTransitClientRuntimeUnregister", "IOChainRemove",
    "MgmtDestroy", "NetEventPortsetEventUnsubscribe", "PortVoltaliteDataUnset",
    "RtmClientUnregister", "WardenHashRemove", "PriQDestroy",
}
LEFT_IN_PLACE = re.compile(r"simulated host: module unloaded with its .* still in place$")

MAX_PROBED_PORTS = 8
# How far past the reference run's count a sweep goes on failing in turn.
MAX_EXTRA = 1000
PROBE_TX = ["udp4:", "arp:op=reply", "udp6:"]
PROBE_RX = [
    "udp4:src=02:00:00:00:00:01,dst=02:00:00:00:00:10,sip=192.0.2.1,dip=192.0.2.50",
    "arp:op=reply,src=02:00:00:00:00:01,dst=02:00:00:00:00:10,sha=02:00:00:00:00:01,"
    "spa=192.0.2.1,tha=02:00:00:00:00:10,tpa=192.0.2.50",
    "udp6:src=02:00:00:00:00:01,dst=02:00:00:00:00:10,sip=2001:db8::1,dip=2001:db8::50",
]
# What changes as a port runs without changing what it lets through.
VOLATILE_KEYS = {
    "stats", "expiryTs", "windowEnd", "count", "agingKey", "agingPortID",
    "dhcpReqList", "dhcpV6ReqList", "numDhcpReqs", "numDhcpV6Reqs",
    "dhcpV6ReqBytes", "configReadHolds", "configWriteHeld", "busy",
}
# The kinds of failure, in the order a scenario's line counts them: a
# problem's text starts with its kind.
KINDS = ("crash", "stderr", "leak", "invariant", "busy", "forwarding")
# The vigilsim processes running now, so that an interrupted sweep can end
# them instead of waiting for them.
LIVE = set()
LIVE_LOCK = threading.Lock()
STOPPING = threading.Event()
LEAK_KEYS = ("leaks", "leakBytes", "framesLive", "heapsLive", "callbacksLeft",
             "oldLeaks", "oldLeakBytes")


def is_command(line):
    stripped = line.strip()
    return stripped != "" and not stripped.startswith("#")


class Scenario:
    """A scenario script as commands, with the probe and the counting added."""

    def __init__(self, name):
        self.name = name
        with open(os.path.join(SCENARIO_DIR, name + ".vsim")) as f:
            self.commands = [line.rstrip("\n") for line in f if is_command(line)]
        self.ports = []
        for command in self.commands:
            words = command.split()
            if words[:2] == ["port", "add"] and len(words) >= 4 and words[3] not in self.ports:
                self.ports.append(words[3])
        self.ports = self.ports[:MAX_PROBED_PORTS]

    def script(self, fault_line):
        """The commands of one run, each with its role: 'scenario', 'count',
        or ('probe', KIND, PORT)."""
        out = [("fault count on", "count")]
        if fault_line:
            out.append((fault_line, "fault"))
        unloads = [i for i, c in enumerate(self.commands) if c.split()[0] == "unload"]
        cut = unloads[-1] if unloads else len(self.commands)
        out += [(c, "scenario") for c in self.commands[:cut]]
        out.append(("fault clear", "probe-clear"))
        for port in self.ports:
            out.append(("state " + port, ("probe", "state", port)))
            out.append(("bindings " + port, ("probe", "bindings", port)))
            out.append(("tx %s %s" % (port, " ".join(PROBE_TX)), ("probe", "tx", port)))
            out.append(("rx %s %s" % (port, " ".join(PROBE_RX)), ("probe", "rx", port)))
        out.append(("check", "probe-check"))
        out += [(c, "scenario") for c in self.commands[cut:]] if unloads else [("unload", "probe-unload")]
        out.append(("fault count", "count"))
        return out


class Run:
    def __init__(self, scenario, fault_line, label):
        self.scenario = scenario
        self.fault_line = fault_line
        self.label = label
        self.roles = []
        self.outputs = []
        self.rc = None
        self.stderr = ""
        self.timed_out = False
        self.interrupted = False
        self.seconds = 0.0

    def counts(self):
        for role, out in zip(self.roles, self.outputs):
            if role == "count" and "allocs" in out:
                return out["allocs"], out.get("calls", {})
        return 0, {}

    def repro(self, vigilsim):
        return "cd %s && scripts/fault-sweep.py --print-script %s %s | %s%s -" % (
            shlex.quote(SRC_DIR), self.scenario.name, shlex.quote(self.fault_line),
            shlex.quote(vigilsim), " --module " + shlex.quote(MODULE) if MODULE else "")


def execute(vigilsim, run, timeout):
    lines = run.scenario.script(run.fault_line)
    run.roles = [role for _, role in lines]
    text = "".join(command + "\n" for command, _ in lines)
    start = time.monotonic()
    stdout = ""
    if STOPPING.is_set():
        run.interrupted = True
        return run
    command = [vigilsim] + (["--module", MODULE] if MODULE else []) + ["-"]
    proc = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, cwd=SRC_DIR, errors="replace")
    with LIVE_LOCK:
        LIVE.add(proc)
    try:
        stdout, run.stderr = proc.communicate(text, timeout=timeout)
        run.rc = proc.returncode
    except subprocess.TimeoutExpired:
        run.timed_out = True
        proc.kill()
        stdout, _ = proc.communicate()
    finally:
        with LIVE_LOCK:
            LIVE.discard(proc)
    run.interrupted = STOPPING.is_set()
    run.seconds = time.monotonic() - start
    for line in (stdout or "").splitlines():
        try:
            run.outputs.append(json.loads(line))
        except ValueError:
            run.outputs.append({"unparsed": line})
    return run


def stop_live_runs():
    """Ends the runs under way (an interrupted sweep does not wait for them)."""
    STOPPING.set()
    with LIVE_LOCK:
        for proc in LIVE:
            if proc.poll() is None:
                proc.kill()


def normalise(value):
    if isinstance(value, dict):
        return {k: normalise(v) for k, v in value.items() if k not in VOLATILE_KEYS}
    if isinstance(value, list):
        return [normalise(v) for v in value]
    return value


def probes(run):
    """Per port: (snapshot of state and bindings, verdicts of tx and rx)."""
    seen = {}
    for role, out in zip(run.roles, run.outputs):
        if isinstance(role, tuple):
            _, kind, port = role
            entry = seen.setdefault(port, {})
            if kind in ("state", "bindings"):
                entry[kind] = normalise(out)
            else:
                entry[kind] = out.get("verdicts") if out.get("ok") else out.get("error")
    return seen


def left_in_place(run):
    """The host's lines about the object that the run's refused removal left,
    when the run's fault is a removal: at most one such object is its due."""
    if run.label[0] != "call" or run.label[1] not in REMOVALS:
        return []
    lines = [l for l in run.stderr.splitlines() if LEFT_IN_PLACE.search(l)]
    return lines if len(lines) <= 1 else []


def judge(run, reference):
    """The failures of one run, as texts."""
    found = []
    allowed = left_in_place(run)
    if run.timed_out:
        found.append("crash: no end within the time limit")
    elif run.rc is not None and (run.rc < 0 or run.rc > 1):
        found.append("crash: vigilsim ended with %s" %
                     ("signal %d" % -run.rc if run.rc < 0 else "status %d" % run.rc))
    stderr = [l for l in run.stderr.splitlines() if l.strip() and l not in allowed]
    if stderr:
        found.append("stderr: " + " | ".join(stderr[:4]))
    if len(run.outputs) < len(run.roles) and not run.timed_out and not found:
        found.append("crash: %d of %d commands answered" % (len(run.outputs), len(run.roles)))
    for i, (role, out) in enumerate(zip(run.roles, run.outputs)):
        cmd = out.get("cmd")
        if cmd in ("unload", "upgrade") and out.get("ok"):
            leaks = {k: out[k] for k in LEAK_KEYS if out.get(k)}
            if allowed and leaks.get("callbacksLeft") == len(allowed):
                del leaks["callbacksLeft"]
                # A filter whose slot could not be cleared stays on its port
                # with its memory: it goes with the module's heap.
                if run.label[1] == "PortVoltaliteDataUnset":
                    leaks.pop("leaks", None)
                    leaks.pop("leakBytes", None)
            if leaks:
                found.append("leak at %s (command %d): %s" % (cmd, i + 1, json.dumps(leaks)))
        if cmd == "check" and out.get("violations"):
            found.append("invariant (command %d): %s" % (i + 1, "; ".join(out["violations"][:4])))
        if out.get("busy") and i < len(reference.outputs) and not reference.outputs[i].get("busy"):
            found.append("busy: the worlds did not become idle at command %d (%s)" % (i + 1, cmd))
    mine, theirs = probes(run), probes(reference)
    for port, entry in mine.items():
        ref = theirs.get(port)
        if ref is None or entry.get("state") != ref.get("state") or \
                entry.get("bindings") != ref.get("bindings"):
            continue
        for kind in ("tx", "rx"):
            if entry.get(kind) != ref.get(kind):
                found.append("forwarding: port %s %s probe %s, %s in the reference run" %
                             (port, kind, json.dumps(entry.get(kind)), json.dumps(ref.get(kind))))
    return found


def compared_ports(run, reference):
    mine, theirs = probes(run), probes(reference)
    return sum(1 for p, e in mine.items() if p in theirs and e.get("state") == theirs[p].get("state")
               and e.get("bindings") == theirs[p].get("bindings"))


def alloc_fault(n):
    return "fault alloc %d" % n


def call_fault(name, k):
    return "fault call %s 0x%x after=%d" % (name, CALL_STATUS.get(name, FAILURE), k)


def new_result(name):
    return {"name": name, "runs": 0, "failures": [], "reached": 0, "uncompared": 0,
            "leftInPlace": 0, "start": time.monotonic(), "seconds": 0.0,
            "interrupted": False}


def record(result, run, reference):
    """Counts one finished run into its scenario's result."""
    result["runs"] += 1
    problems = judge(run, reference)
    if problems:
        result["failures"].append((run, problems))
    result["seconds"] = time.monotonic() - result["start"]


def sweep_scenario(result, args, pool):
    """Sweeps one scenario into RESULT (new_result), which holds what was done
    so far when the sweep is interrupted."""
    scenario = Scenario(result["name"])
    reference = execute(args.vigilsim, Run(scenario, "", "reference"), args.timeout)
    if reference.interrupted:
        return
    record(result, reference, reference)
    allocs, calls = reference.counts()
    def fault_line(fault):
        return alloc_fault(fault[1]) if fault[0] == "alloc" else call_fault(fault[1], fault[2])

    todo = [] if args.call else [("alloc", n) for n in range(1, allocs + 1)]
    todo += [("call", c, k) for c, n in sorted(calls.items()) if c not in CALLS_NOT_SWEPT
             and (not args.call or c in args.call) for k in range(n)]
    if args.every > 1:
        todo = todo[::args.every]
    while todo:
        futures = [pool.submit(execute, args.vigilsim,
                               Run(scenario, fault_line(f), f), args.timeout) for f in todo]
        last = {}
        for future in futures:
            run = future.result()
            if run.interrupted:
                return
            run_allocs, run_calls = run.counts()
            fault = run.label
            if fault[0] == "alloc":
                reached = run_allocs >= fault[1]
            else:
                reached = run_calls.get(fault[1], 0) > fault[2]
            result["reached"] += reached
            result["leftInPlace"] += bool(left_in_place(run))
            result["uncompared"] += len(probes(run)) - compared_ports(run, reference)
            record(result, run, reference)
            last[fault[:-1]] = (fault, reached)
        # In turn until a run no longer meets its fault: a fault can lead a
        # run to make more allocations or calls than the reference run made.
        todo = []
        if args.every == 1:
            for fault, reached in last.values():
                if reached and fault[-1] < MAX_EXTRA + (allocs if fault[0] == "alloc"
                                                        else calls.get(fault[1], 0)):
                    todo.append(fault[:-1] + (fault[-1] + 1,))


def kinds(failures):
    """How many failing runs failed in each way ('leak 2, stderr 1'); a run
    that failed in two ways counts in both."""
    counts = {}
    for _, problems in failures:
        for kind in {p.split(":")[0].split(" ")[0] for p in problems}:
            counts[kind] = counts.get(kind, 0) + 1
    order = list(KINDS) + sorted(k for k in counts if k not in KINDS)
    return ", ".join("%s %d" % (k, counts[k]) for k in order if k in counts)


def report(result, args):
    """A scenario's line, then its failing runs grouped: the runs that fail
    the same call (or allocation) the same way are one group, shown with the
    numbers of its runs and the repro of its first."""
    failures = result["failures"]
    print("== %s: %d runs, %d reached their fault, %d failing%s, %d probed ports not compared, "
          "%d left a refused removal's object in place, %.0f s%s"
          % (result["name"], result["runs"], result["reached"], len(failures),
             " (%s)" % kinds(failures) if failures else "", result["uncompared"],
             result["leftInPlace"], result["seconds"],
             ", interrupted" if result["interrupted"] else ""))
    groups = {}
    for run, problems in failures:
        what = run.label[:-1] if run.label != "reference" else ("reference",)
        key = (what, tuple(re.sub(r"command \d+", "command N", p) for p in problems))
        groups.setdefault(key, []).append((run, problems))
    for (what, _), runs in list(groups.items())[:args.show]:
        first, problems = runs[0]
        numbers = [r.label[-1] for r, _ in runs] if what != ("reference",) else []
        which = {"alloc": "fault alloc N", "call": "fault call %s after=K" % what[-1]}.get(
            what[0], "reference run, no fault")
        if numbers:
            which += " (%s %s)" % ("N" if what[0] == "alloc" else "K", spans(numbers))
        print("   %s: %d run%s" % (which, len(runs), "s" if len(runs) > 1 else ""))
        for problem in problems[:6]:
            print("      " + problem)
        print("      repro: " + first.repro(args.vigilsim))
    if len(groups) > args.show:
        print("   ... %d more groups" % (len(groups) - args.show))
    sys.stdout.flush()


def spans(numbers):
    """1,2,3,7 -> '1-3, 7'."""
    out, start, prev = [], None, None
    for n in sorted(numbers) + [None]:
        if start is not None and (n is None or n != prev + 1):
            out.append(str(start) if start == prev else "%d-%d" % (start, prev))
            start = None
        if n is not None and start is None:
            start = n
        prev = n
    return ", ".join(out)


def main():
    parser = argparse.ArgumentParser(
        description="Reruns every scenario with each allocation and each failable call "
                    "failing in turn.")
    parser.add_argument("--vigilsim", help="the vigilsim binary")
    parser.add_argument("--module", help="the vigil.so to load (default: vigilsim's own)")
    parser.add_argument("--jobs", type=int, default=2, help="runs at once (default 2)")
    parser.add_argument("--every", type=int, default=1,
                        help="run every N-th fault of each scenario only (default 1: all)")
    parser.add_argument("--scenario", action="append", default=[],
                        help="sweep only this scenario (may repeat; default: all)")
    parser.add_argument("--call", action="append", default=[],
                        help="sweep only the failures of this call, no allocations (may repeat)")
    parser.add_argument("--timeout", type=float, default=60, help="seconds per run (default 60)")
    parser.add_argument("--show", type=int, default=20,
                        help="groups of failing runs shown per scenario (default 20)")
    parser.add_argument("--print-script", nargs=2, metavar=("NAME", "FAULT"),
                        help="print the script of one run and exit")
    args = parser.parse_args()

    if args.print_script:
        name, line = args.print_script
        for command, _ in Scenario(name).script(line):
            print(command)
        return 0
    if not args.vigilsim or args.every < 1 or args.jobs < 1:
        parser.print_usage(sys.stderr)
        return 2
    args.vigilsim = os.path.abspath(args.vigilsim)
    global MODULE
    MODULE = os.path.abspath(args.module) if args.module else None
    names = args.scenario or sorted(f[:-5] for f in os.listdir(SCENARIO_DIR) if f.endswith(".vsim"))
    # A terminated sweep reports like an interrupted one: what it has done.
    signal.signal(signal.SIGTERM, terminate)
    start = time.monotonic()
    done = []
    pool = concurrent.futures.ThreadPoolExecutor(max_workers=args.jobs)
    interrupted = None
    try:
        for name in names:
            result = new_result(name)
            done.append(result)
            sweep_scenario(result, args, pool)
            report(result, args)
            result["reported"] = True
    except KeyboardInterrupt as e:
        interrupted = int(e.args[0]) if e.args else int(signal.SIGINT)
        stop_live_runs()
        if done and not done[-1].get("reported"):
            done[-1]["interrupted"] = True
            report(done[-1], args)
    finally:
        pool.shutdown(wait=True, cancel_futures=True)
    failures = [f for r in done for f in r["failures"]]
    print("== fault sweep: %d scenarios%s, %d runs, %d failing%s, %.0f s"
          % (len(done), " (interrupted, %d not swept)" % (len(names) - len(done))
             if interrupted else "", sum(r["runs"] for r in done), len(failures),
             " (%s)" % kinds(failures) if failures else "", time.monotonic() - start))
    sys.stdout.flush()
    if interrupted:
        return 128 + interrupted
    return 1 if failures else 0


def terminate(signum, frame):
    raise KeyboardInterrupt(signum)


if __name__ == "__main__":
    sys.exit(main())
