#!/bin/bash
# run_bench.sh [PM-BENCH ARGUMENTS...]: the costs of the daemon, and without arguments those of its libraries
# too. Fails if a figure lies above its bound.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

status=0
build/bin/pm-bench "$@" || status=1
[[ $# -eq 0 ]] || exit "$status"
for program in build/bin/bench_*; do
  [[ -x $program ]] || continue
  printf '\n%s\n' "${program##*/}"
  "$program" || status=1
done
exit "$status"
