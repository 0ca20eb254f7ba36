// A platform on which one system call of the manager, or of a child of it, fails.
#ifndef TORTURE_FAULT_SCENE_H
#define TORTURE_FAULT_SCENE_H

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "sandbox/agent_peer.h"
#include "sandbox/daemon.h"
#include "sandbox/log_reader.h"
#include "sandbox/sandbox.h"

namespace PmTorture {

// What the manager made of a fault.
enum class Outcome {
  kWhole,  // It has done all that it does on other days,
  kTold,   // or says what is missing,
  kEnded,  // or has ended, and said why.
};

// What strikes in a life.
struct Trouble {
  // How the manager is started, and what is to be done with it when it has been.
  PmSandbox::Process::Options manager;
  std::function<void(pid_t)> attach = [](pid_t) {};
  // It can strike from `begin` on, until `end`: when what it can disturb is over, or, for a spell,
  // when it has struck. A spell begins when the boot is over, anything else before it, or just
  // before the owner reports, for which the boot waits.
  bool isSpell = false;
  bool beginsWithReport = false;
  std::function<void()> begin = [] {};
  std::function<bool()> hasStruck = [] { return false; };
  std::function<void()> end = [] {};
};

// Lives of the manager, one after the other: a boot with a service that reports, which is played,
// and two that are killed; requests of the first; a client of the status. All operations throw
// Broken if a promise is.
class FaultScene {
 public:
  FaultScene();

  // Before any other life: nothing strikes.
  void LiveUndisturbed(const Trouble& none);
  Outcome Live(const Trouble& trouble);

  [[nodiscard]] const PmSandbox::Sandbox& Host() const { return sandbox_; }
  // From the beginning of the last life on.
  [[nodiscard]] std::string Log() const;

 private:
  struct Use {
    std::size_t descriptors = 0;
    std::size_t threads = 0;
  };

  void Start(const Trouble& trouble);
  void AwaitBootOrEnd(const Trouble& trouble);
  void Ask();
  void KillAll(const Trouble& trouble);
  void AwaitChannel(const std::string& name);
  void AwaitReturn(const std::string& name, pid_t before);
  Outcome Judge();
  void JudgeRunning();
  void End();
  [[nodiscard]] bool IsAnswered();
  [[nodiscard]] bool HasStatus() const;
  [[nodiscard]] ProcMgr::UniqueFd AskForStatus() const;
  [[nodiscard]] pid_t PidOf(const std::string& name);
  [[nodiscard]] Use UseNow() const;
  [[nodiscard]] std::set<std::string> Texts() const;
  [[nodiscard]] bool IsTold(std::string_view part) const;
  [[nodiscard]] bool IsToldAnew() const;

  PmSandbox::Sandbox sandbox_;
  PmSandbox::LogReader log_{sandbox_};
  PmSandbox::AgentPeer owner_{sandbox_, "owner"};
  std::optional<PmSandbox::Daemon> daemon_;
  ProcMgr::UniqueFd client_;  // Of the status. It has asked, and doesn't read.
  bool hasChannel_ = false;
  // Of the undisturbed life.
  std::set<std::string> usual_;
  Use use_;
};

}  // namespace PmTorture

#endif  // TORTURE_FAULT_SCENE_H
