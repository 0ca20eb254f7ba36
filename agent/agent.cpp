#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/heartbeat.h"
#include "agent/manager_link.h"
#include "agent/process_manager_agent.h"
#include "agent/request_frames.h"
#include "base/text.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

constexpr Agent::Milliseconds kShortestPeriod{10};
constexpr Agent::Milliseconds kLongestPeriod{3'600'000};

// Runs the body of a public function; what it throws becomes a result.
template <typename Body>
Result Guarded(const Body& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return Result::kOutOfMemory;
  } catch (const std::exception& e) {
    LogError("ProcMgrAgent : %s", e.what());
    return Result::kSystemError;
  }
}

// Builds frames with `build` and sends them.
template <typename Build>
Result BuildAndSend(ManagerLink& link, Agent::Milliseconds wait, const Build& build) noexcept {
  return Guarded([&] {
    const SteadyTime deadline = DeadlineAfter(wait);
    Serialization::PieceList frames;
    const Result built = build(frames);
    return built == Result::kOk ? link.Send(frames, deadline) : built;
  });
}

Result Load(ManagerLink& link, Message::RequestType type, const Message::StartupCfgInfo& info,
            Agent::Milliseconds limit, std::uint32_t* code) {
  const SteadyTime deadline = DeadlineAfter(limit);
  Message::RequestMsg frame;
  if (const Result built = AgentFrames::StartupCfgFrame(type, info, frame); built != Result::kOk) {
    return built;
  }
  std::string answer;
  if (const Result called = link.Call(frame, deadline, answer); called != Result::kOk) {
    return called;
  }
  const std::optional<std::uint32_t> number = ParseNumber<std::uint32_t>(answer);
  if (!number.has_value()) {
    LogError("ProcMgrAgent : the answer to a load isn't a number, size=%zu", answer.size());
    return Result::kBadAnswer;
  }
  if (code != nullptr) {
    *code = *number;
  }
  return *number == 0 ? Result::kOk : Result::kLoadFailed;
}

}  // namespace

struct Agent::Parts {
  Parts(std::string serviceName, Callbacks callbacks)
      : name(std::move(serviceName)),
        link(std::make_shared<ManagerLink>(std::move(callbacks))),
        beats(name) {}

  // Only a member may use the constructor.
  static std::unique_ptr<Agent> Wrap(std::unique_ptr<Parts> parts) {
    return std::unique_ptr<Agent>(new Agent(std::move(parts)));
  }

  const std::string name;
  const std::shared_ptr<ManagerLink> link;
  const BeatSender beats;
  // Last, so that it ends before what it uses.
  PeriodicThread heart;
};

Result Agent::Create(Options options, std::unique_ptr<Agent>& agent) noexcept {
  return Guarded([&] {
    std::string name = std::move(options.name);
    if (const char* const own = secure_getenv("PROC_NAME"); name.empty() && own != nullptr) {
      name = own;
    }
    auto parts = std::make_unique<Parts>(std::move(name), std::move(options.callbacks));
    std::unique_ptr<Agent> made = Parts::Wrap(std::move(parts));
    const Result served = made->parts_->link->Serve(made->parts_->name);
    if (served == Result::kOk) {
      agent = std::move(made);
    }
    return served;
  });
}

Agent::Agent(std::unique_ptr<Parts> parts) noexcept : parts_(std::move(parts)) {}

Agent::~Agent() {
  Stop();
}

void Agent::Stop() noexcept {
  // Neither has a result that anybody could act on.
  (void)Guarded([this] {
    parts_->link->Stop();
    parts_->heart.Stop();
    return Result::kOk;
  });
}

const std::string& Agent::Name() const noexcept {
  return parts_->name;
}

bool Agent::IsConnected() const noexcept {
  return parts_->link->IsUp();
}

Result Agent::WaitConnected(Milliseconds limit) noexcept {
  return Guarded([&] { return parts_->link->AwaitUp(DeadlineAfter(limit)); });
}

Result Agent::ReportState(ServiceState state, Milliseconds wait) noexcept {
  return Guarded([&] { return parts_->link->ReportState(state, DeadlineAfter(wait)); });
}

Result Agent::StartApps(const std::vector<Message::StartAppInfo>& list,
                        Milliseconds wait) noexcept {
  return BuildAndSend(*parts_->link, wait, [&](Serialization::PieceList& frames) {
    return AgentFrames::StartFrames(list, parts_->name, frames);
  });
}

Result Agent::RestartApps(const std::vector<Message::RestartAppInfo>& list,
                          Milliseconds wait) noexcept {
  return BuildAndSend(*parts_->link, wait, [&](Serialization::PieceList& frames) {
    return AgentFrames::RestartFrames(list, parts_->name, frames);
  });
}

Result Agent::TermApps(const std::vector<std::string>& names, Milliseconds wait) noexcept {
  return BuildAndSend(*parts_->link, wait, [&](Serialization::PieceList& frames) {
    return AgentFrames::TermFrames(names, frames);
  });
}

Result Agent::ReportExecution(const Message::AppExecInfo& info, Milliseconds wait) noexcept {
  return BuildAndSend(*parts_->link, wait, [&](Serialization::PieceList& frames) {
    return AgentFrames::ExecutionFrames(info, frames);
  });
}

Result Agent::RequestAppStatus(const std::vector<std::string>& names, Milliseconds wait) noexcept {
  return BuildAndSend(*parts_->link, wait, [&](Serialization::PieceList& frames) {
    std::vector<AgentFrames::QueryFrame> queries;
    const Result built = AgentFrames::QueryFrames(names, queries);
    for (const AgentFrames::QueryFrame& query : queries) {
      frames.push_back(query.frame);
    }
    return built;
  });
}

Result Agent::QueryAppStatus(const std::vector<std::string>& names, Milliseconds limit,
                             StatusMap& status) noexcept {
  return Guarded([&] {
    const SteadyTime deadline = DeadlineAfter(limit);
    std::vector<AgentFrames::QueryFrame> queries;
    Result result = AgentFrames::QueryFrames(names, queries);
    StatusMap found;
    for (const AgentFrames::QueryFrame& query : queries) {
      result = result == Result::kOk ? parts_->link->Query(query, deadline, found) : result;
    }
    if (result == Result::kOk) {
      status = std::move(found);
    }
    return result;
  });
}

Result Agent::LoadStartupCfg(const Message::StartupCfgInfo& info, Milliseconds limit,
                             std::uint32_t* code) noexcept {
  return Guarded([&] {
    return Load(*parts_->link, Message::RequestType::LOAD_STARTUP_CFG, info, limit, code);
  });
}

Result Agent::ReloadStartupCfg(const Message::StartupCfgInfo& info, Milliseconds limit,
                               std::uint32_t* code) noexcept {
  return Guarded([&] {
    return Load(*parts_->link, Message::RequestType::RELOAD_STARTUP_CFG, info, limit, code);
  });
}

Result Agent::Beat() noexcept {
  return parts_->link->IsStopped() ? Result::kStopped : parts_->beats.Beat();
}

Result Agent::SendHeartMsg() noexcept {
  return Guarded([&] { return parts_->link->SendHeartMsg(); });
}

Result Agent::StartHeartbeat() noexcept {
  return StartHeartbeat(HeartbeatOptions{});
}

Result Agent::StartHeartbeat(HeartbeatOptions options) noexcept {
  if (options.period < kShortestPeriod || options.period > kLongestPeriod) {
    return Result::kInvalidArgument;
  }
  if (parts_->link->IsStopped()) {
    return Result::kStopped;
  }
  return Guarded([&] {
    parts_->heart.Start(options.period, [parts = parts_.get(), options] {
      // A failure shows at the manager, as a missing beat; the next period tries again.
      if (options.beats) {
        (void)parts->beats.Beat();
      }
      if (options.heartMessages) {
        (void)Guarded([parts] { return parts->link->SendHeartMsg(); });
      }
    });
    return Result::kOk;
  });
}

void Agent::StopHeartbeat() noexcept {
  (void)Guarded([this] {
    parts_->heart.Stop();
    return Result::kOk;
  });
}

void Agent::SetLog(LogFunction log) noexcept {
  SetLogSink(log);
}

}  // namespace ProcMgr
