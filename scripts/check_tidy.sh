#!/bin/bash
# check_tidy.sh BUILD_FOLDER [--without-tests]: clang-tidy over every source that the build compiles, or over all but
# the tests, one process a core. It runs clang's own warnings with it, the analysis of the locks among them, so nothing
# has to be built.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=$1
left_out='^$'
[[ ${2:-} != --without-tests ]] || left_out="^$PWD/tests/"
echo "check: clang-tidy"
# Prints what is wrong without the "N warnings generated" of every single run.
tidy_one() {
  local output
  output=$(clang-tidy --quiet -p "$1" "$2" 2>&1) || {
    printf '%s\n' "$output" | grep -v ' warnings\? generated\.$'
    return 1
  }
}
export -f tidy_one
sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "$build/compile_commands.json" | sort -u | grep -v "$left_out" |
  xargs -P "$(nproc)" -I '{}' bash -c 'tidy_one "$@"' _ "$build" '{}'
