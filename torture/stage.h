// The real manager with agents that the run plays, and applications that they ask for.
#ifndef TORTURE_STAGE_H
#define TORTURE_STAGE_H

#include <deque>
#include <string>
#include <vector>

#include "sandbox/agent_peer.h"
#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"
#include "sandbox/service_file.h"

namespace PmTorture {

class Stage {
 public:
  // Boots "iammgr" and `agents` agents, all played by the run, and the base services `services`.
  // The first agent has `apps` in its start-up configuration, and has loaded them. Throws Broken if
  // the boot doesn't come to its end.
  Stage(std::size_t agents, const std::vector<PmSandbox::App>& services,
        const std::vector<PmSandbox::App>& apps);
  // Shows the log's end if a promise has been broken.
  ~Stage();
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

  // The services that the run has named, as they stand in the service file.
  static PmSandbox::App Sleeper(const std::string& name, PmSandbox::Keys keys = {});
  // Ignores SIGTERM. It does so only once IsDeaf.
  static PmSandbox::App Stubborn(const std::string& name, PmSandbox::Keys keys = {});
  [[nodiscard]] static bool IsDeaf(pid_t pid);

 private:
  void Boot();

  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  PmSandbox::AgentPeer accessManager_{sandbox_, "iammgr"};
  std::deque<PmSandbox::AgentPeer> agents_;
  std::size_t services_;
  std::deque<PmSandbox::Daemon> managers_;  // The last one lives.
};

}  // namespace PmTorture

#endif  // TORTURE_STAGE_H
