// What the operator service does for pmctl. Requests and answers are JSON objects, one a line:
//
//   {"request": "start" | "stop" | "restart", "names": [NAME...], "timeoutMs": N,
//    "args": [TEXT...], "path": TEXT, "env": [KEY=VALUE...], "vf": TEXT}
//       {"results": [{"name", "ok", "text"}...]}
//   {"request": "query", "names": [NAME...], "timeoutMs": N}
//       {"results": [{"name", "status": "running" | "gone" | "stopped"}...]}
//   {"request": "load" | "reload", "match": {KEY: VALUE...}, "timeoutMs": N}
//       {"ok", "text"}
//
// A request that can't be served at all gets {"error": TEXT}.
#ifndef TOOLS_OPERATOR_OPERATOR_REQUESTS_H
#define TOOLS_OPERATOR_OPERATOR_REQUESTS_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "agent/process_manager_agent.h"
#include "tools/operator/outcomes.h"

namespace Operator {

class OperatorRequests {
 public:
  // Both references are kept.
  OperatorRequests(ProcMgr::Agent& agent, Outcomes& outcomes)
      : agent_(agent), outcomes_(outcomes) {}

  // The answer to one request; any thread, several at a time. Throws nothing but bad_alloc.
  [[nodiscard]] std::string Handle(const std::string& request) const;

 private:
  [[nodiscard]] std::string Dispatch(const std::string& text) const;
  [[nodiscard]] nlohmann::json Operate(const std::string& operation,
                                       const nlohmann::json& request) const;
  [[nodiscard]] ProcMgr::Result Send(const std::string& operation, const std::string& name,
                                     const nlohmann::json& request) const;
  [[nodiscard]] bool IsThere(const std::string& name, ProcMgr::SteadyTime deadline) const;
  void AddOutcomes(const std::string& operation, const Outcomes::Waiter& waiter,
                   const std::vector<std::string>& names, ProcMgr::SteadyTime deadline,
                   nlohmann::json& results) const;
  [[nodiscard]] nlohmann::json Query(const nlohmann::json& request) const;
  [[nodiscard]] nlohmann::json Load(const std::string& operation,
                                    const nlohmann::json& request) const;

  ProcMgr::Agent& agent_;
  Outcomes& outcomes_;
};

}  // namespace Operator

#endif  // TOOLS_OPERATOR_OPERATOR_REQUESTS_H
