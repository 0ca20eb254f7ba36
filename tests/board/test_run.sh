# Runs tests of the build folder that stands on the disk under its path on the building machine. Sourced.

# run_tests CTEST-ARGUMENTS...
run_tests() {
  rm -rf /etc/zur # A sandbox's own test wants a host without a manager.
  cd "$(sed -n 's/.*build=\([^ ]*\).*/\1/p' /proc/cmdline)" || fail 'no build folder'
  # An emulated core is some thirty times slower than a real one.
  export PM_TEST_PATIENCE=10
  expect "ctest $*" ctest --parallel 4 --timeout 1200 --no-tests=error --output-on-failure "$@"
}
