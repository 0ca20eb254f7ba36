# The tests that boot the daemon in a sandbox, but for those that are about how fast it is. Sourced.
source /board/test_run.sh
run_tests -L scenario -E '^Torture\.Storm|ImmediateReactionIsTheFasterOne'
