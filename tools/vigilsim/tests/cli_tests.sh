#!/bin/sh
# Runs vigilsim on small scripts and checks exit codes, errors that name the
# script line, and the one JSON object per command.
# Usage: cli_tests.sh VIGILSIM SOURCE_DIR
set -u
VIGILSIM=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
passed=0
failed=0

check() { # name, condition result (0 = pass)
   if [ "$2" -eq 0 ]; then
      passed=$((passed + 1))
   else
      failed=$((failed + 1))
      echo "FAILED: $1" >&2
      [ -f out ] && sed 's/^/   | /' out >&2
   fi
}

run() { # script text on stdin; file script.vsim; output in out, code in rc
   cat >script.vsim
   "$VIGILSIM" "$@" script.vsim >out 2>err
   rc=$?
}

# Every command succeeds: exit 0, one JSON object per command, in order.
run <<'S'
# a comment
echo "hello world"

portset add vs0
port add vs0 0x10
idle
S
check "all ok exits 0" $([ $rc -eq 0 ]; echo $?)
check "one line per command" $([ "$(wc -l <out)" -eq 4 ]; echo $?)
check "echo result" $(grep -qx '{"cmd":"echo","ok":true,"text":"hello world"}' out; echo $?)
check "port add result" $(sed -n 3p out | grep -q '"cmd":"port","ok":true'; echo $?)

# A failed command: exit 1, the error names the file and line, the run goes on.
run <<'S'
portset add vs0

state 0x30
echo after
S
check "failure exits 1" $([ $rc -eq 1 ]; echo $?)
check "error names the line" \
   $(grep -q '"ok":false,"error":"script.vsim:3: unknown port 0x30"' out; echo $?)
check "run goes on after a failure" $(grep -q '"text":"after"' out; echo $?)

# --stop-on-error ends the run at the first failure.
run --stop-on-error <<'S'
echo one
bogus command
echo two
S
check "stop-on-error exits 1" $([ $rc -eq 1 ]; echo $?)
check "stop-on-error stops" $([ "$(wc -l <out)" -eq 2 ]; echo $?)
check "unknown command" $(grep -q '"cmd":"bogus","ok":false,"error":"script.vsim:2: unknown command' out; echo $?)

# Syntax errors of values and quotes.
run <<'S'
echo "open
tx 1 hex:123
portset add
prop write 7 enabled text:true
S
check "syntax errors exit 1" $([ $rc -eq 1 ]; echo $?)
check "unterminated quote" $(grep -q 'script.vsim:1: unterminated double quote' out; echo $?)
check "usage error" $(grep -q 'script.vsim:3: usage: portset add' out; echo $?)
check "prop write to unknown port" \
   $(grep -q '"cmd":"prop write","ok":false,"error":"script.vsim:4: unknown port 0x7"' out; echo $?)

# A management call needs a loaded module.
run <<'S'
mgmt listVmi switch=vs0 port=16
S
check "mgmt without a module exits 1" $([ $rc -eq 1 ]; echo $?)
check "mgmt without a module" \
   $(grep -q '"cmd":"mgmt","ok":false,"error":"script.vsim:1: no module is loaded"' out; echo $?)

# A port's saved state: migrate, save and restore through a file, an
# upgrade; the file holds exactly the bytes saved.
run <<'S'
load
portset add vs0
port add vs0 0x10
port add vs0 0x20
prop write 0x10 enabled text:true
prop write 0x20 enabled text:true
migrate 0x10 0x20
save 0x10 saved.bin
restore 0x20 saved.bin
rtm announce
upgrade
unload
S
check "migration session exits 0" $([ $rc -eq 0 ]; echo $?)
check "migrate result" $(grep -q '"cmd":"migrate","ok":true,"carrier":"transit","src":16,"dst":32,"size":60,"bufLen":60,"saveStatus":0,"dataLen":60,"restoreStatus":0,"elapsedMS":0,"buffer":"edf1d1115000000064000000020008000000000000000000050008000000000000000000030004000000000006000400000000000400040000000000"' out; echo $?)
check "save result" $(grep -q '"cmd":"save","ok":true,"portID":16,"carrier":"transit","file":"saved.bin","size":60,"bufLen":60,"saveStatus":0,"dataLen":60' out; echo $?)
check "saved file" $([ "$(wc -c <saved.bin)" -eq 60 ]; echo $?)
check "restore result" $(grep -q '"cmd":"restore","ok":true,"portID":32,"carrier":"transit","bufLen":60,"elapsedMS":0,"status":0' out; echo $?)
check "upgrade result" $(grep -q '"cmd":"upgrade","ok":true,"status":0,"ports":\[16,32\],"oldLeaks":0,"oldLeakBytes":0' out; echo $?)
check "new copy unloaded without leaks" $(grep -q '"cmd":"unload","ok":true,"leaks":0' out; echo $?)

# A module that cannot be loaded is a failed command.
run --module "$work/none.so" <<'S'
load
S
check "bad module path" $(grep -q '"cmd":"load","ok":false' out; echo $?)

# Usage errors exit 2.
"$VIGILSIM" --bogus >out 2>&1
check "unknown option exits 2" $([ $? -eq 2 ]; echo $?)
"$VIGILSIM" "$work/missing.vsim" >out 2>&1
check "missing script exits 2" $([ $? -eq 2 ]; echo $?)

# Standard input, also as "-".
printf 'echo a\necho b\n' | "$VIGILSIM" >out 2>&1
check "stdin" $([ $? -eq 0 ] && [ "$(wc -l <out)" -eq 2 ]; echo $?)
printf 'state 9\n' | "$VIGILSIM" - >out 2>&1
check "stdin as -" $(grep -q '"error":"stdin:1: unknown port 0x9"' out; echo $?)

# The module loaded: a filter, blobs, frames and inspection.
run <<'S'
load
portset add vs0
port add vs0 0x10
state 0x10
prop write 0x10 enabled text:true
discovery 0x10 arp=1 dhcp=1
security 0x10 features=0x40 port=mac=02:00:00:00:00:10,ip=192.0.2.50
ignorelist 0x10 vlan=7
mgmt getIgnoreList switch=vs0 port=16 raw=0
tx 0x10 hex:020000000001.020000000010.0800.4500001c000100004001f6acc0000263c0000201.0800f7ff00000000
state 0x10
module
check
heap
unload
S
check "module session exits 0" $([ $rc -eq 0 ]; echo $?)
check "no filter before enable" $(sed -n 4p out | grep -q '"filter":null'; echo $?)
check "discovery blob" $(grep -q '"cmd":"discovery","ok":true,"status":0,"handled":true,"blobLen":2,"blob":"0101"' out; echo $?)
check "spoofed frame dropped" $(grep -q '"verdicts":\["drop"\]' out; echo $?)
check "white list in state" $(grep -q '"portWhiteList":\[{"flags":9,"vlan":0,"mac":"02:00:00:00:00:10","ip":"192.0.2.50","prefixLen":32}\]' out; echo $?)
check "ignore list in state" $(grep -q '"portIgnoreList":\[{"flags":4,"vlan":7' out; echo $?)
check "counter in state" $(grep -q '"statWardenV4Drops":1' out; echo $?)
check "mgmt record" $(grep -q '"cmd":"mgmt","ok":true,"callback":"getIgnoreList","interface":"PortVigil.7000","callbackId":21,"returned":0,"status":0,"record":{"entries":\[{"vlan":"7","mac":"Any","ip":"Any"}\],"numEntries":1,"status":0},"recordLen":4808}' out; echo $?)
check "module values" $(grep -q '"cmd":"module","ok":true,"numFilters":1' out; echo $?)
check "no leaks" $(grep -q '"cmd":"unload","ok":true,"leaks":0' out; echo $?)

# Text mode prints comments and readable results.
run --text <<'S'
# Step one
echo shown
portset add vs0
S
check "text mode" $([ $rc -eq 0 ] && grep -qx 'Step one' out && grep -qx 'shown' out; echo $?)

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
