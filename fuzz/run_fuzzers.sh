#!/bin/sh
# Runs each fuzz harness in turn for SECONDS and prints a table of
# executions and coverage (cov: edges, ft: features, from libFuzzer's last
# status line).  Usage: fuzz/run_fuzzers.sh BUILD_DIR SECONDS [HARNESS ...]
#
# New inputs go to WORK/corpus/<harness> (the committed seeds in
# fuzz/corpus/<harness> are read, never written); crashes, leaks and
# timeouts to WORK/artifacts/<harness>/, each failing the run; each
# harness's output to WORK/fuzz_<harness>.log.  WORK is $FUZZ_WORK, by
# default BUILD_DIR.
set -u
build=$1
seconds=$2
shift 2
work=${FUZZ_WORK:-$build}
mkdir -p "$work"
src=$(cd "$(dirname "$0")" && pwd)
harnesses=${*:-"packet_loop dhcp dhcpv6 nd property mgmt restore"}

# One dictionary per harness; the packet loop takes all of them.
cat "$src"/dict/*.dict > "$work/all.dict"
dict_of() {
   case $1 in
      dhcp) echo "$src/dict/dhcp.dict" ;;
      dhcpv6) echo "$src/dict/dhcpv6.dict" ;;
      nd) echo "$src/dict/nd.dict" ;;
      packet_loop) echo "$work/all.dict" ;;
      *) echo "" ;;
   esac
}

failed=0
table=""
for h in $harnesses; do
   bin="$build/fuzz/fuzz_$h"
   corpus="$work/corpus/$h"
   artifacts="$work/artifacts/$h"
   log="$work/fuzz_$h.log"
   mkdir -p "$corpus" "$artifacts"
   dict=$(dict_of "$h")
   echo "== fuzz_$h: $seconds s" >&2
   ASAN_OPTIONS=abort_on_error=1:detect_leaks=1 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
      -print_final_stats=1 -artifact_prefix="$artifacts/" ${dict:+-dict="$dict"} \
      "$corpus" "$src/corpus/$h" > "$log" 2>&1
   status=$?
   execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
   last=$(grep -E '^#[0-9]+' "$log" | tail -n 1)
   cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
   ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
   result=ok
   if [ "$status" -ne 0 ]; then
      result="FAILED (exit $status, see $log and $artifacts)"
      failed=1
      grep -E 'FUZZ FAILURE|ERROR: |runtime error|Test unit written' "$log" | head -n 5 >&2
   fi
   table="$table$(printf '%-12s %10s %8s %8s %6s  %s' "$h" "${execs:-?}" "${cov:-?}" \
      "${ft:-?}" "$seconds" "$result")
"
done
printf '%-12s %10s %8s %8s %6s  %s\n' harness executions cov ft secs result
printf '%s' "$table"
exit $failed
