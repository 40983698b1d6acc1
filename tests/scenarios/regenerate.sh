#!/bin/sh
# Rewrites the expected output of scenario scripts after a deliberate change
# of behaviour.  Review the change with `git diff tests/scenarios` before
# committing it.
#
# Usage: tests/scenarios/regenerate.sh [-b BUILD_DIR] [NAME ...]
#   BUILD_DIR: a configured and built tree (default: build/default), whose
#   tools/vigilsim is used.  NAME: scripts to rewrite, as dhcp_learning or
#   tests/scenarios/dhcp_learning.vsim (default: all of them).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
srcdir=$(cd "$here/../.." && pwd)
build="$srcdir/build/default"
if [ "${1:-}" = "-b" ]; then
   build=$(cd "$2" && pwd)
   shift 2
fi
vigilsim="$build/tools/vigilsim"
if [ ! -x "$vigilsim" ]; then
   echo "no $vigilsim: build the tree first (cmake --build $build --target vigilsim)" >&2
   exit 2
fi

if [ $# -eq 0 ]; then
   set -- "$here"/*.vsim
fi
failed=0
for name in "$@"; do
   base=$(basename "$name" .vsim)
   sh "$here/run_scenario.sh" --update "$vigilsim" "$srcdir" "tests/scenarios/$base.vsim" ||
      failed=1
done
exit $failed
