# The tests that boot no daemon, from the build folder that the kernel command line names (build=). Sourced.
source /board/test_run.sh
run_tests -LE scenario -E '^packaging|^Installed|^AgentC\.|^AgentGuide|^Bindings'
