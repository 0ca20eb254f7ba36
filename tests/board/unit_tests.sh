# The tests that boot no daemon, from the build folder that the kernel command line names (build=). Sourced.
source /board/test_run.sh
# Not those that run a compiler, a browser or a Python of the building machine; nor the two that lose no line to a
# reader that keeps up, for an emulated core that has to wait for a real one doesn't; nor the one about seconds of CPU.
run_tests -LE scenario \
  -E '^packaging|^Installed|^AgentC\.|^AgentGuide|^Bindings|^BootPageTest|AReaderThatKeepsUp|AThousandServicesTakeASecond'
