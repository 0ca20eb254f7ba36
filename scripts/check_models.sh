#!/bin/bash
# Explores every state of the models in docs/models with spin: each must hold as it is, and each of its faults must be
# found.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# explore MODEL [DEFINE]: prints the number of errors that are found, and the number of states.
explore() {
  (
    cd "$work"
    rm -f -- *
    spin ${2:+"-D$2"} -a "$1" >out || { cat out >&2; exit 1; }
    # What spin writes isn't ours to mend.
    gcc -w -O2 -DSAFETY -o pan pan.c
    ./pan -m1000000 >out
    grep -q 'search depth too small\|out of memory' out && { cat out >&2; exit 1; }
    echo "$(sed -n 's/.*errors: //p' out) $(awk '/states, stored/ {print $1}' out)"
  )
}

for model in docs/models/*.pml; do
  read -r errors states < <(explore "$PWD/$model")
  [[ $errors == 0 ]] || { echo "check: $model doesn't hold" >&2; exit 1; }
  faults=0
  for fault in $(sed -n 's/^ *FAULT \([A-Z_]*\):.*/\1/p' "$model"); do
    faults=$((faults + 1))
    read -r errors _ < <(explore "$PWD/$model" "$fault")
    [[ $errors -gt 0 ]] || { echo "check: $model doesn't find its fault $fault" >&2; exit 1; }
  done
  [[ $faults -gt 0 ]] || { echo "check: $model names no fault" >&2; exit 1; }
  echo "check: $model holds in all its $states states, and finds each of its $faults faults"
done
