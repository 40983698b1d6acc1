#!/bin/sh
# make bench-lab: builds vigild in Release and runs the veth lab comparison
# of bench/lab/bench_lab.py (the Linux bridge, the bridge with an nftables
# white list, vigild with no feature and with the port warden), printing
# its table and writing it as JSON beside the build.  Needs root.
#
# Environment: BENCH_LAB_BUILD, the build directory (build/release);
# BEFORE, another vigild measured in the same run (say, one built from
# main), shown as "before"; JOBS, parallel build jobs.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BENCH_LAB_BUILD:-$root/build/release}
if [ "$(id -u)" != 0 ]; then
   echo "bench-lab: needs root (it makes network namespaces and veth pairs)" >&2
   exit 1
fi
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVIGIL_DEBUG_CHECKS=OFF >/dev/null
cmake --build "$build" -j "${JOBS:-2}" --target vigild vigil
# The run takes about two minutes; the bound leaves it room, and on
# expiry the script still removes everything it made.
exec timeout 280 python3 "$root/bench/lab/bench_lab.py" --vigild "$build/tools/vigild" \
   ${BEFORE:+--before "$BEFORE"} --json "$build/bench-lab.json"
