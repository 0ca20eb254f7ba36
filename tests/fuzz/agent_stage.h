// A messaging library for the agent that is fuzzed: it serves no name and sends nothing, and the
// target calls the agent in its place.
#ifndef TESTS_FUZZ_AGENT_STAGE_H
#define TESTS_FUZZ_AGENT_STAGE_H

#include <set>

#include "message/nexio.h"

namespace PmTest {

struct NexioStage {
  static constexpr int kServer = 1 << 20;

  ProcMgr::NexioConnectCallback connect;
  ProcMgr::NexioRequestCallback request;
  std::set<int> open;  // The connections that the agent hasn't closed.
};

NexioStage& Stage();

}  // namespace PmTest

#endif  // TESTS_FUZZ_AGENT_STAGE_H
