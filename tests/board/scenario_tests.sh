# The tests that boot the daemon in a sandbox, but for those that are about how much is done in a while. Sourced.
source /board/test_run.sh
run_tests -L scenario -E '^Torture\.Storm'
