// The library that a base service links to talk to the process manager.
//
//   int main() {
//     std::unique_ptr<ProcMgr::Agent> agent;
//     const ProcMgr::Result made = ProcMgr::Agent::Create({}, agent);
//     if (made != ProcMgr::Result::kOk) {
//       std::fprintf(stderr, "no agent: %s\n", ProcMgr::ToText(made));
//       return 1;
//     }
//     (void)agent->StartHeartbeat();
//     ... get ready ...
//     (void)agent->ReportState(ProcMgr::ServiceState::kReady, std::chrono::minutes(1));
//     ... serve ...
//   }
//
// The manager connects to the service, not the other way round: Create serves the service's name
// and the manager opens its channel some time later. One channel counts, the latest: when the
// manager opens a new one, after a restart of either side, the old one is forgotten. A connection
// is accepted only from the manager: a process of root or of the service's user that is the
// service's parent, or the one that the manager's file in /run names.
//
// Requests. Each says how long it may wait for a channel; with the default it doesn't wait and
// yields kNoChannel if none is up. A manager that doesn't read costs its sender about two seconds
// on top, then the result is kBusy. kOk means that the request has been handed over, not that it
// has been obeyed: what becomes of applications arrives later as reports. A list that needs several
// frames is several independent messages; when the channel breaks between two of them, the first
// ones have gone.
//
// Threads. Every function may be called from any thread, and lets no exception out. The messaging
// library has five threads of its own in every process that uses it, and more while callbacks take
// long; callbacks come on them, one at a time. StartHeartbeat starts one more; there is no other.
// The library blocks all signals on these threads, so handlers run on the service's own.
//
// Log. The library's lines go to syslog as the service's own do: under the ident that it gave to
// openlog, else under its program's name. SetLog sends them elsewhere.
#ifndef AGENT_PROCESS_MANAGER_AGENT_H
#define AGENT_PROCESS_MANAGER_AGENT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/app_state.h"
#include "message/request_msg.h"

namespace ProcMgr {

enum class Result {
  kOk,
  kInvalidName,      // Not 1 to 64 bytes of A-Z a-z 0-9 . _ - without a leading dot, or "PROCMGR".
  kNameTaken,        // Another process serves the name.
  kInvalidArgument,  // An empty list or name, a '#' or a zero byte in a text, an unknown key.
  kTooLarge,         // A record that doesn't fit a frame; nothing of the list has been sent.
  kNoChannel,        // No channel to the manager came up within the wait.
  kDisconnected,     // The channel broke, or a new one took its place, before the answer.
  kBusy,             // The other side's queue stayed full.
  kTimeout,          // No answer within the limit.
  kLoadFailed,       // The manager couldn't load the start-up configuration.
  kBadAnswer,        // The manager's answer isn't one.
  kInCallback,       // Would wait for an answer in a callback, which keeps the answer out.
  kStopped,          // The agent has been stopped.
  kNoReceiver,       // Nobody receives heartbeats.
  kOutOfMemory,
  kSystemError,  // Something else; the log has a line with the error number.
};

// A text for people, never null: "the manager has opened no channel".
[[nodiscard]] const char* ToText(Result result) noexcept;

// What a service says about itself.
enum class ServiceState : std::uint32_t {
  kUp = 0,         // The access manager is up: tell it who is there already. Only from "iammgr".
  kReportAll = 1,  // Tell the access manager of every application. Only from "iammgr".
  kReady = 2,      // The boot goes on.
  kGoingDown = 3,
};

enum class AppStatus : int {
  kThere = 0,
  kGone = 1,  // Or unknown, or never started.
  kStopped = 2,
};

class Agent {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using StatusMap = std::map<std::string, AppStatus>;

  // Functions of the service; each may be left empty. They come one at a time, on threads of the
  // messaging library; while one runs, what the manager sends waits, so they should be short. They
  // may call the agent, except for what waits for an answer (kInCallback), and may destroy it. An
  // exception that one lets out is caught and logged.
  struct Callbacks {
    // A channel is up, for the first time or again.
    std::function<void()> connected;
    // The channel has broken. Not called when a new channel takes the place of an old one. Changes
    // that come while another callback runs are told together, as the last of them.
    std::function<void()> disconnected;
    // What has happened to applications that this service owns, or has asked for. "iammgr" hears of
    // every process. `state` of a record is the number of a ReportAppStateType.
    std::function<void(const std::vector<Message::AppStateInfo>& changes)> appStates;
    // The answer to a RequestAppStatus.
    std::function<void(const StatusMap& status)> appStatus;
  };

  struct Options {
    // The service's appName. Empty: the PROC_NAME of the environment, which the envArgv of the
    // service file has to set. Without that it is "PROCMGR", the manager's own: kInvalidName.
    std::string name;
    Callbacks callbacks;
  };

  struct HeartbeatOptions {
    Milliseconds period{
        500};           // From 10 ms to an hour; the manager calls 2 s without a beat a loss.
    bool beats = true;  // Beat in every period.
    bool heartMessages = true;  // SendHeartMsg in every period, while a channel is up.
  };

  // Begins to serve the name and sets `agent`, which stays as it is on failure. Yields
  // kInvalidName, kNameTaken or kSystemError. Blocks only in a process that isn't root and comes
  // before the directory of the sockets is there: up to ten seconds.
  [[nodiscard]] static Result Create(Options options, std::unique_ptr<Agent>& agent) noexcept;
  // Stop, and the end of the object: no other thread may be in a call of it any more.
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Ends the service of the name: waiting calls yield kStopped, and so does every later one. When
  // it returns no callback runs and none comes any more; in a callback it doesn't wait for that
  // one. Stops the heartbeat.
  void Stop() noexcept;

  [[nodiscard]] const std::string& Name() const noexcept;
  [[nodiscard]] bool IsConnected() const noexcept;
  // Yields kOk as soon as a channel is up, or kNoChannel after `limit`.
  [[nodiscard]] Result WaitConnected(Milliseconds limit) noexcept;

  // Once kReady or kGoingDown has found a channel, the last of them is reported again, by the
  // library and before Callbacks::connected, on each new channel: a manager that was restarted, or
  // a report that got lost with its channel, needs no care of the service.
  [[nodiscard]] Result ReportState(ServiceState state, Milliseconds wait = {}) noexcept;

  // Start, restart and terminate general applications. The outcome of each comes to
  // Callbacks::appStates. Records travel in order of their size, not of the list. Values of
  // `dynamicPara` are refused from "iammgr", because the manager doesn't read them from it.
  [[nodiscard]] Result StartApps(const std::vector<Message::StartAppInfo>& list,
                                 Milliseconds wait = {}) noexcept;
  [[nodiscard]] Result RestartApps(const std::vector<Message::RestartAppInfo>& list,
                                   Milliseconds wait = {}) noexcept;
  [[nodiscard]] Result TermApps(const std::vector<std::string>& names,
                                Milliseconds wait = {}) noexcept;

  // Tells of a process that runs outside the manager's care; for the service "ventrix".
  [[nodiscard]] Result ReportExecution(const Message::AppExecInfo& info,
                                       Milliseconds wait = {}) noexcept;

  // Asks whether applications are there. The first form has the answer come to
  // Callbacks::appStatus. The second waits for it, at most `limit` in all, and fills `status`,
  // which stays as it is on failure; not for use in a callback. An answer that comes after the
  // limit goes to the callback, or to a later query for exactly the same names.
  [[nodiscard]] Result RequestAppStatus(const std::vector<std::string>& names,
                                        Milliseconds wait = {}) noexcept;
  [[nodiscard]] Result QueryAppStatus(const std::vector<std::string>& names, Milliseconds limit,
                                      StatusMap& status) noexcept;

  // Has the manager load, or load again, the start-up configuration of this service with the match
  // data of `info`, and waits for its answer, at most `limit` in all. The file is the one that the
  // service's own manifest names (startupEntryPath), whatever `info.path` says. kLoadFailed: the
  // manager's code is in `code`, if that isn't null. Not for use in a callback.
  [[nodiscard]] Result LoadStartupCfg(const Message::StartupCfgInfo& info, Milliseconds limit,
                                      std::uint32_t* code = nullptr) noexcept;
  [[nodiscard]] Result ReloadStartupCfg(const Message::StartupCfgInfo& info, Milliseconds limit,
                                        std::uint32_t* code = nullptr) noexcept;

  // One beat of the heart: a datagram to the manager. kNoReceiver: nobody is there to hear it.
  // The manager's queue is short: one that finds it full waits for room, at most 500 ms, then the
  // result is kBusy. For a service that would rather beat from its own loop, about every 500 ms, so
  // that a loop that hangs falls silent.
  [[nodiscard]] Result Beat() noexcept;
  // One heart message with the next number, counted from 1 on each channel. It lets the manager
  // measure the delivery. Never blocks; one that finds the queue full isn't sent and not counted.
  [[nodiscard]] Result SendHeartMsg() noexcept;

  // Does both in the background, on a thread of its own. A second call replaces the options.
  // Failures don't end it: it goes on with the next period. It shows that the process is there, not
  // that its work gets done.
  [[nodiscard]] Result StartHeartbeat() noexcept;
  [[nodiscard]] Result StartHeartbeat(HeartbeatOptions options) noexcept;
  void StopHeartbeat() noexcept;

  // Takes a line without a line break and its syslog priority (3 error, 4 warning, 6 information, 7
  // debug). Called under a lock, one line at a time; must neither log nor call the library.
  using LogFunction = void (*)(int priority, const char* text);
  // Sends the library's lines to `log` instead of syslog; null brings syslog back. For the whole
  // process.
  static void SetLog(LogFunction log) noexcept;

 private:
  struct Parts;
  explicit Agent(std::unique_ptr<Parts> parts) noexcept;

  std::unique_ptr<Parts> parts_;
};

}  // namespace ProcMgr

#endif  // AGENT_PROCESS_MANAGER_AGENT_H
