#!/bin/sh
# Lists the undefined symbols of the loadable module and fails on anything
# that is not a platform or sibling-module call or a compiler memory builtin;
# and checks that the port database API that sibling modules call by name
# is there as plain C functions.
set -eu
so="$1"
undefined=$(nm -D --undefined-only "$so" | awk '{print $NF}' | sed 's/@.*//')
bad=$(printf '%s\n' "$undefined" | grep -v -E '^(zek_|oxa_|FC_|PP_|OXA_BUILD_NUMBER$|pathprobe_global_time$|memcpy$|memset$|memmove$|memcmp$|$)' || true)
if [ -n "$bad" ]; then
   echo "vigil.so imports symbols outside the platform:" >&2
   printf '%s\n' "$bad" >&2
   exit 1
fi
for api in Vigil_PortDBGetNumEntries Vigil_PortDBGetEntries Vigil_PortDBDelEntries; do
   if ! nm -D --defined-only "$so" | grep -q -E "^[0-9a-f]+ T $api\$"; then
      echo "vigil.so does not export the function $api by its C name" >&2
      exit 1
   fi
done
count=$(printf '%s\n' "$undefined" | grep -c . || true)
echo "vigil.so imports $count symbols, all platform, sibling or memory builtins"
