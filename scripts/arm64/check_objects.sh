#!/bin/bash
# Every object of the build says that its indirect branches have landing pads and its returns are signed. The linker
# drops the first promise from the programs, because the start files of Debian's C library and compiler don't make
# it; linked with ones that do (docs/target.md), the programs keep it.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

count=0
while read -r object; do
  count=$((count + 1))
  aarch64-linux-gnu-readelf -n "$object" | grep -q 'AArch64 feature: BTI, PAC' || {
    echo "arm64: no branch protection in $object" >&2
    exit 1
  }
done < <(find "$build_dir" -name '*.o' -path '*/CMakeFiles/pm_*')
[[ $count -gt 0 ]] || { echo "arm64: no objects in $build_dir" >&2; exit 1; }
echo "arm64: branch protection in all $count objects"
