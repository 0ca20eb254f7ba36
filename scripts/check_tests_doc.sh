#!/bin/bash
# check_tests_doc.sh BUILD_FOLDER: fails if docs/tests.md or docs/reliability.md names a test that the build doesn't have.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# A test over several types stands once for each, "Suite.Case<TYPE>", and one over several values,
# "Values/Suite.Case/VALUE".
known=$(ctest --test-dir "$1" -N | sed -n 's/^ *Test *#[0-9]*: *//p' | sed 's/<.*//; s,^[A-Za-z]*/,,; s,/.*,,' | sort -u)
named=$(grep -ohE '`[A-Z][A-Za-z0-9]*\.[A-Z][A-Za-z0-9]*`' docs/tests.md docs/reliability.md | tr -d '`' | sort -u)
# "Suite.Case" is the form of the names, told at the top of the page.
missing=$(comm -13 <(printf '%s\n' "$known" Suite.Case | sort) <(printf '%s\n' "$named"))
if [[ -n $missing ]]; then
  printf 'the docs name tests that there are not:\n%s\n' "$missing" >&2
  exit 1
fi
