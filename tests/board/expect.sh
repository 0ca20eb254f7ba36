# What the suites say their checks with; busybox's sh reads it too. Sourced.

checks=0 failures=0

fail() {
  failures=$((failures + 1))
  echo "FAILED $*"
}

# expect WHAT COMMAND...: the command succeeds.
expect() {
  local what=$1
  shift
  checks=$((checks + 1))
  if "$@"; then echo "ok     $what"; else fail "$what"; fi
}

# expect_text WHAT WANTED SEEN
expect_text() {
  checks=$((checks + 1))
  if [ "$2" = "$3" ]; then echo "ok     $1: $3"; else fail "$1: '$3' instead of '$2'"; fi
}
