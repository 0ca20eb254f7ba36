# The tests that boot the daemon in a sandbox, but for those that are about how fast it is, or that have a thousand
# applications log more than an emulated reader reads. Sourced.
source /board/test_run.sh
run_tests -L scenario -E \
  '^Torture\.(Storm|Clock|Neighbours|Faults|OtherFaults)|ImmediateReactionIsTheFasterOne|^GeneralMany|FiveHundredServicesInFiftyLevels'
# Alone, for hearts miss their beats on a machine that is busy with other tests for seconds.
run_tests -R '^Torture\.Clock'
