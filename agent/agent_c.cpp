// The C functions: each checks and converts what it is given, calls the C++ agent, and lets no
// exception out.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "agent/process_manager_agent.h"
#include "agent/process_manager_agent_c.h"

using ProcMgr::Agent;
using ProcMgr::Result;

struct pm_agent {
  std::unique_ptr<Agent> agent;
};

namespace {

namespace Message = ProcMgr::Message;
using Names = std::vector<std::string>;

struct ResultRow {
  Result result;
  int error;
};

// In the order of Result, so that a result is the index of its row; for an error number the first
// row that has it counts.
constexpr std::array kResults = {
    ResultRow{Result::kOk, 0},
    ResultRow{Result::kInvalidName, EINVAL},
    ResultRow{Result::kNameTaken, EADDRINUSE},
    ResultRow{Result::kInvalidArgument, EINVAL},
    ResultRow{Result::kTooLarge, EMSGSIZE},
    ResultRow{Result::kNoChannel, ENOTCONN},
    ResultRow{Result::kDisconnected, EPIPE},
    ResultRow{Result::kBusy, EAGAIN},
    ResultRow{Result::kTimeout, ETIMEDOUT},
    ResultRow{Result::kLoadFailed, EREMOTEIO},
    ResultRow{Result::kBadAnswer, EPROTO},
    ResultRow{Result::kInCallback, EDEADLK},
    ResultRow{Result::kStopped, ESHUTDOWN},
    ResultRow{Result::kNoReceiver, ECONNREFUSED},
    ResultRow{Result::kOutOfMemory, ENOMEM},
    ResultRow{Result::kSystemError, EIO},
};
static_assert(kResults.size() == static_cast<std::size_t>(Result::kSystemError) + 1);

int ErrorOf(Result result) {
  return -kResults.at(static_cast<std::size_t>(result)).error;
}

// Runs the body of a function, which yields an int or a Result.
template <typename Body>
int Guarded(const Body& body) noexcept {
  try {
    if constexpr (std::is_same_v<decltype(body()), Result>) {
      return ErrorOf(body());
    } else {
      return body();
    }
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  } catch (...) {
    return -EIO;
  }
}

// The first `sizeof(Struct)` bytes of what the caller gave, which may know more fields than this
// library: those must be zero. False if that isn't so, or if it knows fewer.
template <typename Struct>
bool Read(const void* given, Struct& out) {
  std::size_t size = 0;
  std::memcpy(&size, given, sizeof(size));
  if (size < sizeof(Struct) || size > 4096) {
    return false;
  }
  const char* const bytes = static_cast<const char*>(given);
  std::memcpy(&out, bytes, sizeof(out));
  return std::all_of(bytes + sizeof(out), bytes + size, [](char byte) { return byte == 0; });
}

// False if a name is null.
bool ReadNames(const char* const* names, std::size_t count, Names& out) {
  if (names == nullptr && count > 0) {
    return false;
  }
  out.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (names[i] == nullptr) {
      return false;
    }
    out.emplace_back(names[i]);
  }
  return true;
}

// A list that ends with a null pointer, or is one.
Names ReadList(const char* const* list) {
  Names out;
  for (; list != nullptr && *list != nullptr; ++list) {
    out.emplace_back(*list);
  }
  return out;
}

template <typename Info>
bool ReadStart(const void* given, Info& out) {
  pm_agent_start start{};
  if (!Read(given, start) || start.name == nullptr) {
    return false;
  }
  out.appName = start.name;
  out.argv = ReadList(start.arguments);
  if (start.path != nullptr) {
    out.dynamicPara[0] = {start.path};
  }
  if (start.vf != nullptr) {
    out.dynamicPara[1] = {start.vf};
  }
  if (Names environment = ReadList(start.environment); !environment.empty()) {
    out.dynamicPara[2] = std::move(environment);
  }
  return true;
}

// The records lie as far apart as the caller says that they are long.
template <typename Info>
bool ReadStarts(const pm_agent_start* list, std::size_t count, std::vector<Info>& out) {
  if (list == nullptr) {
    return count == 0;
  }
  const char* at = reinterpret_cast<const char*>(list);
  for (std::size_t i = 0; i < count; ++i, at += list->size) {
    Info info;
    if (!ReadStart(at, info)) {
      return false;
    }
    out.push_back(std::move(info));
  }
  return true;
}

bool ReadPairs(const pm_agent_pair* pairs, std::size_t count,
               std::map<std::string, std::string>& out) {
  if (pairs == nullptr && count > 0) {
    return false;
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (pairs[i].key == nullptr || pairs[i].value == nullptr) {
      return false;
    }
    out.emplace(pairs[i].key, pairs[i].value);
  }
  return true;
}

void TellChanges(const pm_agent_callbacks& to, const std::vector<Message::AppStateInfo>& changes) {
  std::vector<pm_agent_change> list;
  list.reserve(changes.size());
  for (const Message::AppStateInfo& change : changes) {
    list.push_back({change.appName.c_str(), change.pid, change.gid, change.state, change.eioFlag});
  }
  to.changes(to.context, list.data(), list.size());
}

void TellStatus(const pm_agent_callbacks& to, const Agent::StatusMap& status) {
  std::vector<pm_agent_status> list;
  list.reserve(status.size());
  for (const auto& [name, value] : status) {
    list.push_back({name.c_str(), static_cast<std::int32_t>(value), 0});
  }
  to.status(to.context, list.data(), list.size());
}

Agent::Callbacks Wrap(const pm_agent_callbacks& to) {
  Agent::Callbacks callbacks;
  if (to.connected != nullptr) {
    callbacks.connected = [to] { to.connected(to.context); };
  }
  if (to.disconnected != nullptr) {
    callbacks.disconnected = [to] { to.disconnected(to.context); };
  }
  if (to.changes != nullptr) {
    callbacks.appStates = [to](const auto& changes) { TellChanges(to, changes); };
  }
  if (to.status != nullptr) {
    callbacks.appStatus = [to](const auto& status) { TellStatus(to, status); };
  }
  return callbacks;
}

// Every function but pm_agent_create gets its agent through this.
template <typename Body>
int With(const pm_agent* handle, const Body& body) noexcept {
  return handle == nullptr ? -EINVAL : Guarded([&] { return body(*handle->agent); });
}

using Load = Result (Agent::*)(const Message::StartupCfgInfo&, Agent::Milliseconds,
                               std::uint32_t*) noexcept;

int LoadWith(Load load, pm_agent* handle, const pm_agent_pair* pairs, std::size_t count,
             std::int64_t limit, std::uint32_t* code) noexcept {
  return With(handle, [&](Agent& agent) {
    Message::StartupCfgInfo info;
    return ReadPairs(pairs, count, info.matchData)
               ? (agent.*load)(info, Agent::Milliseconds(limit), code)
               : Result::kInvalidArgument;
  });
}

}  // namespace

int pm_agent_create(const char* name, const pm_agent_callbacks* callbacks, pm_agent** agent) {
  return Guarded([&] {
    pm_agent_callbacks given{};
    if (agent == nullptr || (callbacks != nullptr && !Read(callbacks, given))) {
      return Result::kInvalidArgument;
    }
    auto made = std::make_unique<pm_agent>();
    const Result created = Agent::Create({name != nullptr ? name : "", Wrap(given)}, made->agent);
    if (created == Result::kOk) {
      *agent = made.release();
    }
    return created;
  });
}

void pm_agent_destroy(pm_agent* agent) {
  const std::unique_ptr<pm_agent> owner(agent);
}

void pm_agent_stop(pm_agent* agent) {
  if (agent != nullptr) {
    agent->agent->Stop();
  }
}

const char* pm_agent_name(const pm_agent* agent) {
  return agent != nullptr ? agent->agent->Name().c_str() : "";
}

int pm_agent_is_connected(const pm_agent* agent) {
  return agent != nullptr && agent->agent->IsConnected() ? 1 : 0;
}

int pm_agent_wait_connected(pm_agent* agent, int64_t limit_ms) {
  return With(agent, [&](Agent& to) { return to.WaitConnected(Agent::Milliseconds(limit_ms)); });
}

int pm_agent_report_state(pm_agent* agent, int state, int64_t wait_ms) {
  return With(agent, [&](Agent& to) {
    return to.ReportState(static_cast<ProcMgr::ServiceState>(state), Agent::Milliseconds(wait_ms));
  });
}

int pm_agent_start_apps(pm_agent* agent, const pm_agent_start* list, size_t count,
                        int64_t wait_ms) {
  return With(agent, [&](Agent& to) {
    std::vector<Message::StartAppInfo> infos;
    return ReadStarts(list, count, infos) ? to.StartApps(infos, Agent::Milliseconds(wait_ms))
                                          : Result::kInvalidArgument;
  });
}

int pm_agent_restart_apps(pm_agent* agent, const pm_agent_start* list, size_t count,
                          int64_t wait_ms) {
  return With(agent, [&](Agent& to) {
    std::vector<Message::RestartAppInfo> infos;
    return ReadStarts(list, count, infos) ? to.RestartApps(infos, Agent::Milliseconds(wait_ms))
                                          : Result::kInvalidArgument;
  });
}

int pm_agent_term_apps(pm_agent* agent, const char* const* names, size_t count, int64_t wait_ms) {
  return With(agent, [&](Agent& to) {
    Names list;
    return ReadNames(names, count, list) ? to.TermApps(list, Agent::Milliseconds(wait_ms))
                                         : Result::kInvalidArgument;
  });
}

int pm_agent_report_execution(pm_agent* agent, const char* name, int32_t pid, uint32_t gid,
                              int running, int64_t wait_ms) {
  return With(agent, [&](Agent& to) {
    const Message::AppExecInfo info{name != nullptr ? name : "", pid, gid, running != 0 ? 0U : 1U};
    return to.ReportExecution(info, Agent::Milliseconds(wait_ms));
  });
}

int pm_agent_request_status(pm_agent* agent, const char* const* names, size_t count,
                            int64_t wait_ms) {
  return With(agent, [&](Agent& to) {
    Names list;
    return ReadNames(names, count, list) ? to.RequestAppStatus(list, Agent::Milliseconds(wait_ms))
                                         : Result::kInvalidArgument;
  });
}

int pm_agent_query_status(pm_agent* agent, const char* const* names, size_t count, int64_t limit_ms,
                          int32_t* status) {
  return With(agent, [&](Agent& to) {
    Names list;
    if (status == nullptr || !ReadNames(names, count, list)) {
      return Result::kInvalidArgument;
    }
    Agent::StatusMap found;
    const Result result = to.QueryAppStatus(list, Agent::Milliseconds(limit_ms), found);
    if (result == Result::kOk) {
      std::transform(list.begin(), list.end(), status, [&](const std::string& name) {
        return static_cast<std::int32_t>(found.at(name));
      });
    }
    return result;
  });
}

int pm_agent_load_startup_cfg(pm_agent* agent, const pm_agent_pair* pairs, size_t count,
                              int64_t limit_ms, uint32_t* code) {
  return LoadWith(&Agent::LoadStartupCfg, agent, pairs, count, limit_ms, code);
}

int pm_agent_reload_startup_cfg(pm_agent* agent, const pm_agent_pair* pairs, size_t count,
                                int64_t limit_ms, uint32_t* code) {
  return LoadWith(&Agent::ReloadStartupCfg, agent, pairs, count, limit_ms, code);
}

int pm_agent_beat(pm_agent* agent) {
  return With(agent, [](Agent& to) { return to.Beat(); });
}

int pm_agent_send_heart_message(pm_agent* agent) {
  return With(agent, [](Agent& to) { return to.SendHeartMsg(); });
}

int pm_agent_start_heartbeat(pm_agent* agent, int64_t period_ms, uint32_t what) {
  return With(agent, [&](Agent& to) {
    if (what == 0 || (what & ~(PM_AGENT_BEATS | PM_AGENT_HEART_MESSAGES)) != 0) {
      return Result::kInvalidArgument;
    }
    return to.StartHeartbeat({Agent::Milliseconds(period_ms), (what & PM_AGENT_BEATS) != 0,
                              (what & PM_AGENT_HEART_MESSAGES) != 0});
  });
}

void pm_agent_stop_heartbeat(pm_agent* agent) {
  if (agent != nullptr) {
    agent->agent->StopHeartbeat();
  }
}

const char* pm_agent_error_text(int error) {
  if (error == -EINVAL) {
    return "not a service's name (PROC_NAME in the service file's envArgv: 1 to 64 of A-Z a-z 0-9 "
           ". _ -), or another invalid argument";
  }
  const auto row = std::find_if(kResults.begin(), kResults.end(),
                                [error](const ResultRow& r) { return error == -r.error; });
  return row != kResults.end() ? ProcMgr::ToText(row->result) : "unknown result";
}

const char* pm_agent_version() {
  return PM_VERSION;
}

void pm_agent_set_log(void (*log)(int priority, const char* text)) {
  Agent::SetLog(log);
}
