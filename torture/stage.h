// The real manager with agents that the run plays, and applications that they ask for.
#ifndef TORTURE_STAGE_H
#define TORTURE_STAGE_H

#include <chrono>
#include <deque>
#include <string>
#include <vector>

#include "sandbox/agent_peer.h"
#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"
#include "sandbox/service_file.h"

namespace PmTorture {

// Prints the end of a log, for whoever looks into a promise that was broken.
void ShowEnd(const std::string& log);

class Stage {
 public:
  // Boots "iammgr" and `agents` agents, all played by the run, and the base services `services`.
  // The first agent has `apps` in its start-up configuration, and has loaded them. The manager is
  // started as `manager` says. Throws Broken if the boot doesn't come to its end.
  Stage(std::size_t agents, const std::vector<PmSandbox::App>& services,
        const std::vector<PmSandbox::App>& apps,
        PmSandbox::Process::Options manager = {{}, "process-manager", nullptr});
  ~Stage() = default;
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  [[nodiscard]] const PmSandbox::Sandbox& Host() const { return sandbox_; }
  [[nodiscard]] PmSandbox::LogReader& Log() { return log_; }
  [[nodiscard]] PmSandbox::Daemon& Manager() { return managers_.back(); }
  [[nodiscard]] PmSandbox::AgentPeer& AccessManager() { return accessManager_; }
  [[nodiscard]] std::deque<PmSandbox::AgentPeer>& Agents() { return agents_; }

  // Kills the manager and starts another, as a supervisor of the board would; what it had started
  // runs on. Throws Broken if the boot of the new one doesn't come to its end.
  void ReplaceManager();

  // Waits for the start of a base service behind index `from` of the log. Yields its pid.
  [[nodiscard]] pid_t AwaitStarted(const std::string& name, std::size_t from = 0) const;

  // The services that the run has named, as they stand in the service file.
  static PmSandbox::App Sleeper(const std::string& name, PmSandbox::Keys keys = {});
  // Ignores SIGTERM, from a moment after its start.
  static PmSandbox::App Stubborn(const std::string& name,
                                 std::chrono::milliseconds termTimeOut = std::chrono::hours(1));
  // Reports and beats by itself. Its environment gets `environment` besides, ", KEY: VALUE" each.
  static PmSandbox::App Beating(const std::string& name, const std::string& environment = {});

 private:
  // Shows the log's end if a promise has been broken, in the boot or later.
  class LastWords {
   public:
    explicit LastWords(const PmSandbox::LogReader& log) : log_(log) {}
    ~LastWords();
    LastWords(const LastWords&) = delete;
    LastWords& operator=(const LastWords&) = delete;

   private:
    const PmSandbox::LogReader& log_;
  };

  void Boot();

  const PmSandbox::Process::Options options_;
  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  LastWords lastWords_{log_};
  PmSandbox::AgentPeer accessManager_{sandbox_, "iammgr"};
  std::deque<PmSandbox::AgentPeer> agents_;
  std::size_t services_;
  std::deque<PmSandbox::Daemon> managers_;  // The last one lives.
};

}  // namespace PmTorture

#endif  // TORTURE_STAGE_H
