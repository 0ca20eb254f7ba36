#!/bin/bash
# Fails if a source isn't as clang-format would write it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

echo "check: formatting"
find . -path './build*' -prune -o -path ./.git -prune -o \
  \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) -print0 |
  xargs -0 clang-format --dry-run --Werror
