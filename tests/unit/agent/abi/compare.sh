#!/bin/bash
# compare.sh LIBRARY LAYOUT_PROGRAM: the symbols that the shared library gives away, its soname, and what its
# structures look like must be those that programs have been built against. Whoever adds a function adds its
# line; a line that changes or goes needs a new soname.
set -euo pipefail

library=$1
layout=$2
expected=$(dirname "${BASH_SOURCE[0]}")/agent_c_1.abi
actual=$(
  readelf --dynamic --wide "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/soname \1/p'
  nm --dynamic --defined-only "$library" | awk '$2 != "A" { print "symbol", $3 }' | LC_ALL=C sort
  "$layout"
)
if ! diff "$expected" <(printf '%s\n' "$actual"); then
  echo "the library's binary interface isn't that of $expected (<: expected, >: built)" >&2
  exit 1
fi
# Unloading it would take the code away from under its threads.
readelf --dynamic --wide "$library" | grep -q 'FLAGS_1.*NODELETE' || {
  echo "the library can be unloaded (-z nodelete is missing)" >&2
  exit 1
}
