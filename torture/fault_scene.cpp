#include "torture/fault_scene.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <iterator>

#include "base/small_file.h"
#include "base/unix_address.h"
#include "bench/host.h"
#include "bench/marks.h"
#include "sandbox/service_file.h"
#include "sandbox/service_lines.h"
#include "sandbox/system_error.h"
#include "torture/require.h"

namespace PmTorture {
namespace {

using PmSandbox::App;
using PmSandbox::Eventually;
using PmSandbox::Keys;
using std::chrono::milliseconds;

constexpr const char* kBaseFile = "/run/sandbox/base.yaml";
constexpr const char* kEntryFile = "/run/sandbox/owner.yaml";
constexpr const char* kOperatorsProgram = "/opt/bench/operators";
constexpr const char* kStatusSocket = "/run/process-manager/status.sock";

App Service(const std::string& name, const Keys& keys, bool serves = false) {
  App app{name, PmBench::kServicePath, {"/run/sandbox/marks." + name}, keys};
  if (!serves) {
    app.arguments.emplace_back("--rest");
  }
  app.keys.emplace_back("envArgv", "{PROC_NAME: " + name + "}");
  return app;
}

}  // namespace

FaultScene::FaultScene() {
  PmBench::PrepareHost(sandbox_);
  sandbox_.AddGroup("extra", 7100);
  sandbox_.AddUser("operator", 7000, 7001, "/home/operator", {"extra"});
  sandbox_.InstallProgram(PmSandbox::ProgramPath("bench-service"), kOperatorsProgram, 0, 7001,
                          0750);
  sandbox_.WriteFile(kEntryFile,
                     PmSandbox::ServiceFile({Service("general", {{"gid", "77"}, {"nice", "3"}})}));
  App beta =
      Service("beta", {{"restart", "on-forever"}, {"uid", "operator"}, {"gid", "operator"}}, true);
  beta.binPath = kOperatorsProgram;
  sandbox_.WriteFile(
      kBaseFile, PmSandbox::ServiceFile(
                     {Service("owner", {{"isReporting", "true"}, {"startupEntryPath", kEntryFile}}),
                      Service("alpha", {{"restart", "on-forever"}}, true), beta}));
}

void FaultScene::LiveUndisturbed(const Trouble& none) {
  Start(none);
  AwaitBootOrEnd(none);
  Ask();
  KillAll(none);
  Require(hasChannel_ && IsAnswered() && HasStatus(), "an undisturbed manager answers");
  Require(IsTold("Start generalApp success"), "an undisturbed manager starts an application");
  for (const std::string name : {"alpha", "beta"}) {
    AwaitChannel(name);
  }
  client_.Reset();
  usual_ = Texts();
  use_ = UseNow();
  End();
}

Outcome FaultScene::Live(const Trouble& trouble) {
  Start(trouble);
  AwaitBootOrEnd(trouble);
  if (trouble.isSpell) {
    trouble.begin();
  }
  Ask();
  KillAll(trouble);
  trouble.end();  // What is asked from here on nobody spoils any more.
  const Outcome outcome = Judge();
  End();
  return outcome;
}

void FaultScene::Start(const Trouble& trouble) {
  log_.Forget();
  if (!trouble.isSpell && !trouble.beginsWithReport) {
    trouble.begin();
  }
  daemon_.emplace(sandbox_, std::vector<std::string>{kBaseFile}, trouble.manager);
  trouble.attach(daemon_->Pid());
}

// The end of the boot, or of the manager: whichever comes.
void FaultScene::AwaitBootOrEnd(const Trouble& trouble) {
  bool isReady = false;
  const auto report = [&] {
    if (!owner_.AwaitChannel(milliseconds(1000))) {
      return false;
    }
    if (trouble.beginsWithReport) {
      Require(log_.WaitFor("waiting for baseApp=owner").has_value(),
              "the boot waits for the owner");
      trouble.begin();
    }
    return owner_.ReportState(PmSandbox::kStateReady);
  };
  const bool isOver = Eventually([&] {
    isReady = isReady || report();
    return !daemon_->IsRunning() || IsTold("InitBaseApplication end") ||
           IsTold("ParseYamlFile failed");
  });
  Require(isOver, "hung: the boot doesn't come to its end");
  hasChannel_ = isReady || (PidOf("owner") != 0 && owner_.AwaitChannel(milliseconds(1000)));
}

// What comes of it is seen at the end.
void FaultScene::Ask() {
  if (hasChannel_) {
    (void)owner_.AskToLoad();
    (void)owner_.StartApps({{"general", {}, {}}});
    (void)owner_.RestartApps({{"general", {}, {}}});
    (void)owner_.TermApps({"general"});
  }
  client_ = AskForStatus();
}

ProcMgr::UniqueFd FaultScene::AskForStatus() const {
  static constexpr std::string_view kQuestion = "{\"get\":\"status\"}\n";
  ProcMgr::UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::string path = sandbox_.Outside(kStatusSocket);
  const ProcMgr::UnixAddress address(path);
  if (connect(client.Get(), address.Get(), address.Size()) != 0 ||
      send(client.Get(), kQuestion.data(), kQuestion.size(), MSG_NOSIGNAL) < 0) {
    client.Reset();
  }
  return client;
}

void FaultScene::KillAll(const Trouble& trouble) {
  for (int round = 0; round < 3 && daemon_->IsRunning(); ++round) {
    for (const std::string name : {"alpha", "beta"}) {
      const pid_t pid = PidOf(name);
      if (pid == 0) {
        continue;
      }
      PmSandbox::CheckStep(PmSandbox::Kill(pid), "kill " + name);
      if (trouble.isSpell && round == 0) {
        Require(Eventually([&] {
                  const pid_t now = PidOf(name);
                  return trouble.hasStruck() || (now != 0 && now != pid) || !daemon_->IsRunning();
                }),
                "hung: neither does the fault strike nor does " + name + " come back");
        trouble.end();
      }
      AwaitReturn(name, pid);
    }
  }
}

// On a busy machine a service may serve too late for its channel: then it gets another life.
void FaultScene::AwaitChannel(const std::string& name) {
  std::size_t from = 0;
  for (;;) {
    const std::string started = "Start baseApp success appName=" + name + ",";
    while (const auto next = log_.WaitFor(started, from, milliseconds(0))) {
      from = *next + 1;
    }
    const auto isOpen = PmSandbox::AwaitOpening(log_, name, from);
    Require(isOpen.has_value(), "the opening of a channel ends");
    if (*isOpen) {
      return;
    }
    const pid_t pid = PidOf(name);
    PmSandbox::CheckStep(PmSandbox::Kill(pid), "kill " + name);
    AwaitReturn(name, pid);
  }
}

void FaultScene::AwaitReturn(const std::string& name, pid_t before) {
  Require(Eventually([&] {
            const pid_t now = PidOf(name);
            return (now != 0 && now != before) || !daemon_->IsRunning();
          }),
          "unsupervised: " + name + " doesn't come back");
}

Outcome FaultScene::Judge() {
  if (!daemon_->IsRunning()) {
    const int status = *daemon_->WaitExit();
    Require(WIFEXITED(status), "the manager has crashed, status " + std::to_string(status));
    Require(Eventually([&] { return IsToldAnew(); }), "untold: it has ended without a word");
    return Outcome::kEnded;
  }
  if (IsTold("ParseYamlFile failed")) {
    return Outcome::kTold;
  }
  JudgeRunning();
  return IsToldAnew() ? Outcome::kTold : Outcome::kWhole;
}

void FaultScene::JudgeRunning() {
  Require(PidOf("alpha") != 0 || PidOf("beta") != 0, "one of the two services runs");
  for (const std::string name : {"alpha", "beta", "owner"}) {
    Require(PidOf(name) != 0 || Eventually([&] { return IsToldAnew(); }),
            "untold: " + name + " is away");
  }
  Require(PidOf("owner") == 0 || (hasChannel_ ? IsAnswered() : IsToldAnew()),
          "untold: its owner hears nothing of a request");
  Require(HasStatus() || IsToldAnew(), "untold: the status is away");
  client_.Reset();
  Require(Eventually([&] {
            const Use now = UseNow();
            return now.descriptors <= use_.descriptors && now.threads <= use_.threads;
          }),
          "leaked: " + std::to_string(daemon_->Descriptors().size()) + " descriptors, " +
              std::to_string(daemon_->ThreadCount()) + " threads; before " +
              std::to_string(use_.descriptors) + " and " + std::to_string(use_.threads));
  Require(daemon_->AwaitReaped(), "leaked: a zombie is left");
}

void FaultScene::End() {
  daemon_.reset();
  owner_.Close();
  client_.Reset();
}

// The owner is told what becomes of a request.
bool FaultScene::IsAnswered() {
  bool isAnswered = owner_.TermApps({"sentinel"});
  for (auto report = owner_.NextReport(); isAnswered && report.has_value();
       report = owner_.NextReport()) {
    if (report->appName == "sentinel") {
      return true;
    }
  }
  return false;
}

// One that asks again is answered, whatever has become of the first.
bool FaultScene::HasStatus() const {
  const ProcMgr::UniqueFd client = AskForStatus();
  pollfd polled{client.Get(), POLLIN, 0};
  char first = 0;
  const auto patience = static_cast<int>(PmSandbox::kPatience.count());
  return client.IsOpen() && poll(&polled, 1, patience) == 1 &&
         recv(client.Get(), &first, 1, 0) == 1 && first == '{';
}

// Zero if it doesn't run.
pid_t FaultScene::PidOf(const std::string& name) {
  const std::vector<pid_t> services = daemon_->Services();
  const auto found = std::find_if(services.begin(), services.end(), [&](pid_t pid) {
    std::string words;  // None of one that has ended meanwhile.
    (void)ProcMgr::ReadSmallFile("/proc/" + std::to_string(pid) + "/cmdline",
                                 ProcMgr::kConfigFileLimit, words);
    return words.find("/marks." + name + '\0') != std::string::npos;
  });
  return found == services.end() ? 0 : *found;
}

FaultScene::Use FaultScene::UseNow() const {
  return {daemon_->Descriptors().size(), daemon_->ThreadCount()};
}

// What stands in the log, without numbers.
std::set<std::string> FaultScene::Texts() const {
  std::set<std::string> texts;
  for (const PmSandbox::LogLine& line : log_.Lines()) {
    std::string text;
    std::copy_if(line.text.begin(), line.text.end(), std::back_inserter(text),
                 [](char c) { return c < '0' || c > '9'; });
    texts.insert(text);
  }
  return texts;
}

bool FaultScene::IsTold(std::string_view part) const {
  return log_.WaitFor(part, 0, milliseconds(0)).has_value();
}

bool FaultScene::IsToldAnew() const {
  const std::set<std::string> texts = Texts();
  return !std::includes(usual_.begin(), usual_.end(), texts.begin(), texts.end());
}

std::string FaultScene::Log() const {
  return log_.Text();
}

}  // namespace PmTorture
