#!/bin/bash
# same_bytes.sh FOLDER: the packages in it are those that another folder gives, byte by byte. Builds everything once
# more, in a copy of the sources, with the SOURCE_DATE_EPOCH of the first build.
set -euo pipefail

: "${SOURCE_DATE_EPOCH:?}"
folder=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
copy=$(mktemp -d)/with/another/name
trap 'rm -rf "${copy%/with/*}"' EXIT
mkdir -p "$copy"
tar --exclude='./build*' --exclude=./.git -cf - . | tar -xf - -C "$copy"
cd "$copy"
source scripts/build.sh
export CCACHE_DISABLE=1 # What was compiled in the other folder proves nothing.
build_packages
diff --recursive --brief "$folder" build-package/packages || {
  echo "same_bytes: two builds differ"
  exit 1
}
