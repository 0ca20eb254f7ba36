# The tests that boot the daemon in a sandbox. Sourced.
source /board/test_run.sh
run_tests -L scenario -E Endurance
