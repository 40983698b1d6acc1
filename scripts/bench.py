#!/usr/bin/env python3
"""Runs the data path benchmarks and prints one table.

    scripts/bench.py BENCH_BINARY JSON_OUT [--min-time SECONDS] [--no-callgrind]

Time per frame comes from Google Benchmark (CPU time, the median of three
repetitions); instructions per frame from callgrind: each case runs alone
(`BENCH_BINARY --run CASE N`) for N and for 2N iterations, and the
difference of the two totals, divided by the N iterations' frames, is what
one frame costs with the set-up cancelled out.  Ratios are to the baseline
case (the host's walk with no chain) of the same run.  The table is also
written to JSON_OUT.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

BASELINE = "host_walk"
# Iterations of each case in the shorter callgrind run.
CALLGRIND_ITERATIONS = {
    "host_walk": 2000,
    "no_feature": 2000,
    "white_list_8": 500,
    "white_list_256": 50,
    "white_list_8_two_sources": 500,
    "white_list_256_two_sources": 500,
    "broadcast_limit": 500,
    "arp_refresh": 2000,
    "dhcp_exchange": 200,
}
LABELS = {
    "host_walk": "host walk, no chain (baseline)",
    "no_feature": "port with no feature",
    "white_list_8": "port white list of 8, match at the last",
    "white_list_256": "port white list of 256, match at the last",
    "white_list_8_two_sources": "white list of 8, two sources taking turns",
    "white_list_256_two_sources": "white list of 256, two sources taking turns",
    "broadcast_limit": "transmit broadcast limit",
    "arp_refresh": "ARP refresh",
    "dhcp_exchange": "DHCP exchange (per frame, with relock)",
}


def targets(results):
    """Each target as (case, text, met) once every figure is known."""
    by = {r["case"]: r for r in results}
    nf = by.get("no_feature")
    base = by.get(BASELINE)
    out = {}
    if nf and base:
        out["no_feature"] = ("<= 1.1x baseline", nf["ns_per_frame"] <= 1.1 * base["ns_per_frame"])
    if nf and "white_list_8" in by:
        wl = by["white_list_8"]
        ok = wl["ns_per_frame"] - nf["ns_per_frame"] <= 12
        if wl.get("instructions_per_frame") is not None and nf.get("instructions_per_frame") is not None:
            ok = ok and wl["instructions_per_frame"] - nf["instructions_per_frame"] <= 60
        out["white_list_8"] = ("<= no feature + 12 ns, + 60 instr", ok)
    if nf and "white_list_256" in by:
        out["white_list_256"] = ("<= no feature + 20 ns",
                                 by["white_list_256"]["ns_per_frame"] - nf["ns_per_frame"] <= 20)
    if nf and "broadcast_limit" in by:
        out["broadcast_limit"] = ("<= no feature + 15 ns",
                                  by["broadcast_limit"]["ns_per_frame"] - nf["ns_per_frame"] <= 15)
    if "arp_refresh" in by:
        out["arp_refresh"] = ("<= 150 ns", by["arp_refresh"]["ns_per_frame"] <= 150)
    if "dhcp_exchange" in by:
        out["dhcp_exchange"] = ("<= 2000 ns", by["dhcp_exchange"]["ns_per_frame"] <= 2000)
    return out


def run_timings(binary, min_time):
    out = subprocess.run(
        [binary, "--benchmark_format=json", "--benchmark_repetitions=3",
         "--benchmark_report_aggregates_only=true", f"--benchmark_min_time={min_time}"],
        check=True, capture_output=True, text=True).stdout
    data = json.loads(out)
    ns = {}
    for b in data["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        name = b["run_name"]
        ns[name] = 1e9 / b["items_per_second"]
    return ns


def callgrind_total(binary, case, iterations):
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "callgrind.out")
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
                        binary, "--run", case, str(iterations)],
                       check=True, capture_output=True, text=True)
        with open(out) as f:
            for line in f:
                m = re.match(r"(?:summary|totals):\s+(\d+)", line)
                if m:
                    return int(m.group(1))
    raise RuntimeError(f"no instruction total for {case}")


def frames_per_iteration(binary, case):
    out = subprocess.run([binary, "--run", case, "1"], check=True, capture_output=True,
                         text=True).stdout
    return int(re.search(r"of (\d+) frames", out).group(1))


def main():
    args = sys.argv[1:]
    if len(args) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    binary, json_out = args[0], args[1]
    min_time = "0.3"
    use_callgrind = "--no-callgrind" not in args
    if use_callgrind and shutil.which("valgrind") is None:
        print("valgrind not found: no instruction counts", file=sys.stderr)
        use_callgrind = False
    if "--min-time" in args:
        min_time = args[args.index("--min-time") + 1]

    cases = subprocess.run([binary, "--list"], check=True, capture_output=True,
                           text=True).stdout.split()
    ns = run_timings(binary, min_time)
    results = []
    for case in cases:
        instr = None
        if use_callgrind:
            n = CALLGRIND_ITERATIONS.get(case, 500)
            frames = frames_per_iteration(binary, case)
            one = callgrind_total(binary, case, n)
            two = callgrind_total(binary, case, 2 * n)
            instr = (two - one) / (n * frames)
        results.append({"case": case, "label": LABELS.get(case, case),
                        "ns_per_frame": ns[case], "mpps": 1e3 / ns[case],
                        "instructions_per_frame": instr})
    base = next(r for r in results if r["case"] == BASELINE)
    for r in results:
        r["ratio_to_baseline"] = r["ns_per_frame"] / base["ns_per_frame"]
    tgt = targets(results)
    for r in results:
        t = tgt.get(r["case"])
        r["target"] = t[0] if t else None
        r["target_met"] = t[1] if t else None

    header = f"{'case':<44} {'ns/frame':>9} {'Mpps':>8} {'instr/frame':>11} {'ratio':>7}  target"
    print(header)
    print("-" * (len(header) + 30))
    for r in results:
        instr = f"{r['instructions_per_frame']:.1f}" if r["instructions_per_frame"] is not None else "-"
        target = "" if r["target"] is None else f"{r['target']}: {'met' if r['target_met'] else 'NOT met'}"
        print(f"{r['label']:<44} {r['ns_per_frame']:>9.1f} {r['mpps']:>8.2f} {instr:>11} "
              f"{r['ratio_to_baseline']:>6.2f}x  {target}")
    os.makedirs(os.path.dirname(os.path.abspath(json_out)), exist_ok=True)
    with open(json_out, "w") as f:
        json.dump({"baseline": BASELINE, "cases": results}, f, indent=2)
        f.write("\n")
    print(f"(written to {json_out})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
