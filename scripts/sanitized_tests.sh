#!/bin/bash
# sanitized_tests.sh BUILD_FOLDER [CTEST ARGUMENTS...]: runs the tests of a sanitizer build. A finding in any
# process fails the run, also in the daemon or a child of it whose exit status no test looks at.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=$(realpath "$1")
shift
reports=$build/sanitizer-reports
rm -rf "$reports"
mkdir -p "$reports"
chmod 1777 "$reports" # Services of the tests run as other users.

common="log_path=$reports/report:log_exe_name=1"
export ASAN_OPTIONS="$common:detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1"
export UBSAN_OPTIONS="$common:print_stacktrace=1"
export TSAN_OPTIONS="$common:halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp"
export LSAN_OPTIONS="$common:suppressions=$PWD/tests/lsan.supp"

status=0
ctest --test-dir "$build" "$@" || status=$?
if compgen -G "$reports/report*" >/dev/null; then
  echo "sanitizer findings:" >&2
  cat "$reports"/report* >&2
  exit 1
fi
exit "$status"
