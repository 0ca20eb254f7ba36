#!/bin/bash
# run_fuzz.sh SECONDS [TARGET...]: runs the fuzz targets of build-fuzz, each SECONDS long, as many at once as
# FUZZ_JOBS says, or as there are cores. What they find lies in build-fuzz/findings, the inputs that they made
# in build-fuzz/corpus.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

export seconds=$1
shift
# Each target has its seeds in a folder of its name.
targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
  mapfile -t targets < <(find tests/fuzz/corpus -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort)
fi

fuzz_one() {
  local target=$1 log=build-fuzz/fuzz-logs/$1.log
  local -a options=()
  # The books of that schedule cost more than to run a whole manager, which has very many features.
  [[ $target != fuzz_manager ]] || options=(-entropic=0)
  mkdir -p "build-fuzz/corpus/$target" build-fuzz/findings build-fuzz/fuzz-logs
  if "build-fuzz/bin/$target" "${options[@]}" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="build-fuzz/findings/$target-" \
    "build-fuzz/corpus/$target" "tests/fuzz/corpus/$target" </dev/null >"$log" 2>&1; then
    printf '%-32s %s s, %s inputs, no finding\n' "$target" "$seconds" \
      "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
  else
    printf '%-32s FINDING, see %s\n' "$target" "$log"
    tail -n 40 "$log"
    return 1
  fi
}
export -f fuzz_one
printf '%s\n' "${targets[@]}" | xargs -P "${FUZZ_JOBS:-$(nproc)}" -I '{}' bash -c 'fuzz_one "$1"' _ '{}'
