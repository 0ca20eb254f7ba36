// Any text as a request to the operator: the answer is one line of JSON in printable characters.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "agent/process_manager_agent.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/nexio_stage.h"
#include "tools/operator/operator_requests.h"

using PmTest::FuzzText;
using PmTest::Require;

namespace {

// One whose channel is up and takes no frame, so that no request waits for what becomes of it.
ProcMgr::Agent& TheAgent() {
  static const std::unique_ptr<ProcMgr::Agent> agent = [] {
    std::unique_ptr<ProcMgr::Agent> made;
    Require(ProcMgr::Agent::Create({"operator", {}}, made) == ProcMgr::Result::kOk);
    PmTest::Stage().connect(1, "PROCMGR", 7);
    return made;
  }();
  return *agent;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Operator::Outcomes outcomes;
  static const Operator::OperatorRequests requests(TheAgent(), outcomes);
  const std::string answer = requests.Handle(std::string(FuzzText(data, size)));
  Require(std::all_of(answer.begin(), answer.end(), [](char c) { return c >= ' ' && c <= '~'; }));
  Require(nlohmann::json::parse(answer).is_object());
  return 0;
}
