#!/bin/sh
# Compares what the loadable module exports with what vigil_exports.h
# declares with VIGIL_EXPORT: the same names, no more and no fewer.
set -eu
so="$1"
header="$2"
exported=$(nm -D --defined-only "$so" | awk '{print $NF}' | sort)
declared=$(sed -n 's/.*VIGIL_EXPORT [^(;]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)[(;].*/\1/p' "$header" | sort)
if [ "$exported" != "$declared" ]; then
   echo "vigil.so exports differ from $header:" >&2
   printf '%s\n' "$exported" > /tmp/vigil-exported.$$
   printf '%s\n' "$declared" | diff -u - /tmp/vigil-exported.$$ >&2 || true
   rm -f /tmp/vigil-exported.$$
   exit 1
fi
count=$(printf '%s\n' "$exported" | grep -c .)
echo "vigil.so exports the $count symbols its header declares"
