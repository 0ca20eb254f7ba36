// From the requests of a service to frames.
//
// What the manager would misread or drop without a word is refused here, where somebody can be
// told: texts that hold the separator, records that a frame doesn't hold, counts beyond the limits
// of the receiving side.
#ifndef AGENT_REQUEST_FRAMES_H
#define AGENT_REQUEST_FRAMES_H

#include <string>
#include <vector>

#include "agent/process_manager_agent.h"
#include "message/request_msg.h"
#include "message/serialization.h"

namespace ProcMgr::AgentFrames {

using Serialization::PieceList;

// Each replaces what is in its last parameter; on failure that is unspecified. `sender` is the
// service's own name.
[[nodiscard]] Result StartFrames(const std::vector<Message::StartAppInfo>& list,
                                 const std::string& sender, PieceList& frames);
[[nodiscard]] Result RestartFrames(const std::vector<Message::RestartAppInfo>& list,
                                   const std::string& sender, PieceList& frames);
[[nodiscard]] Result TermFrames(const std::vector<std::string>& names, PieceList& frames);
[[nodiscard]] Result StateFrames(ServiceState state, PieceList& frames);
[[nodiscard]] Result ExecutionFrames(const Message::AppExecInfo& info, PieceList& frames);
// `type` is LOAD_STARTUP_CFG or RELOAD_STARTUP_CFG.
[[nodiscard]] Result StartupCfgFrame(Message::RequestType type, const Message::StartupCfgInfo& info,
                                     Message::RequestMsg& frame);

// A question, and the names that its answer will hold.
struct QueryFrame {
  std::vector<std::string> names;  // Sorted, each once.
  Message::RequestMsg frame;
};

// Cuts the names into questions whose answers fit one frame each: the manager sends no answer that
// doesn't.
[[nodiscard]] Result QueryFrames(const std::vector<std::string>& names,
                                 std::vector<QueryFrame>& frames);

}  // namespace ProcMgr::AgentFrames

#endif  // AGENT_REQUEST_FRAMES_H
