#!/bin/sh
# Lists the undefined symbols of the loadable module and fails on anything
# that is not a platform or sibling-module call or a compiler memory builtin.
set -eu
so="$1"
undefined=$(nm -D --undefined-only "$so" | awk '{print $NF}' | sed 's/@.*//')
bad=$(printf '%s\n' "$undefined" | grep -v -E '^(zek_|oxa_|FC_|PP_|OXA_BUILD_NUMBER$|pathprobe_global_time$|memcpy$|memset$|memmove$|memcmp$|$)' || true)
if [ -n "$bad" ]; then
   echo "vigil.so imports symbols outside the platform:" >&2
   printf '%s\n' "$bad" >&2
   exit 1
fi
count=$(printf '%s\n' "$undefined" | grep -c . || true)
echo "vigil.so imports $count symbols, all platform, sibling or memory builtins"
