#include "torture/stage.h"

#include <cstdio>
#include <exception>
#include <utility>

#include "sandbox/service_lines.h"
#include "torture/require.h"

namespace PmTorture {
namespace {

using PmSandbox::App;

constexpr const char* kBaseFile = "/run/sandbox/base.yaml";
constexpr const char* kEntryFile = "/run/sandbox/entries.yaml";
constexpr const char* kSampleApp = "/opt/torture/sample_app";
constexpr const char* kHelloService = "/opt/torture/hello_service";

App Agent(const std::string& name, PmSandbox::Keys keys) {
  App app = Stage::Sleeper(name, std::move(keys));
  app.keys.emplace_back("isReporting", "true");
  return app;
}

}  // namespace

Stage::Stage(std::size_t agents, const std::vector<App>& services, const std::vector<App>& apps,
             PmSandbox::Process::Options manager)
    : options_(std::move(manager)), services_(services.size()) {
  sandbox_.MakePlatformGroups("0");
  sandbox_.InstallProgram(PmSandbox::ProgramPath("sample_app"), kSampleApp);
  sandbox_.InstallProgram(PmSandbox::ProgramPath("hello_service"), kHelloService);
  sandbox_.WriteFile(kEntryFile, PmSandbox::ServiceFile(apps));
  sandbox_.WriteSettings("supervision: {reaction: immediate}\n");
  std::vector<App> all = {Agent("iammgr", {})};
  for (std::size_t i = 0; i < agents; ++i) {
    PmSandbox::Keys keys = {{"dependList", "[iammgr]"}};
    if (i == 0) {
      keys.emplace_back("startupEntryPath", kEntryFile);
    }
    const std::string name = "agent" + std::to_string(i);
    all.push_back(Agent(name, keys));
    agents_.emplace_back(sandbox_, name);
  }
  all.insert(all.end(), services.begin(), services.end());
  sandbox_.WriteFile(kBaseFile, PmSandbox::ServiceFile(all));
  Boot();
}

void ShowEnd(const std::string& log) {
  constexpr std::size_t kShown = 4000;
  (void)std::fprintf(stderr, "the end of the log:\n%s\n",
                     log.c_str() + (log.size() > kShown ? log.size() - kShown : 0));
}

Stage::LastWords::~LastWords() {
  if (std::uncaught_exceptions() > 0) {
    ShowEnd(log_.Text());
  }
}

void Stage::Boot() {
  managers_.emplace_back(sandbox_, std::vector<std::string>{kBaseFile}, options_);
  Require(accessManager_.BecomeReady(), "the manager opens the channel of iammgr");
  for (PmSandbox::AgentPeer& agent : agents_) {
    Require(agent.BecomeReady(), "the manager opens the channel of " + agent.Name());
  }
  Require(log_.WaitFor("InitBaseApplication end").has_value(), "the bring-up ends");
  // Everything but iammgr itself, in whichever order.
  const std::size_t starts = agents_.size() + services_;
  Require(accessManager_.NextReports(starts).size() == starts, "iammgr hears of each start");
  Require(agents_.empty() || agents_[0].LoadStartupCfg() == "0", "the applications are loaded");
}

void Stage::ReplaceManager() {
  Require(PmSandbox::KillAndAwait(Manager().Pid()), "the manager dies when it is killed");
  accessManager_.Close();
  for (PmSandbox::AgentPeer& agent : agents_) {
    agent.Close();
  }
  log_.Forget();
  Boot();
}

pid_t Stage::AwaitStarted(const std::string& name, std::size_t from) const {
  const auto pid = PmSandbox::AwaitStart(log_, name, from);
  Require(pid.has_value(), name + " is started");
  return *pid;
}

App Stage::Sleeper(const std::string& name, PmSandbox::Keys keys) {
  return {name, "/bin/sleep", {"1000000"}, std::move(keys)};
}

App Stage::Stubborn(const std::string& name, std::chrono::milliseconds termTimeOut) {
  return {
      name, kSampleApp, {"--ignore-term"}, {{"termTimeOut", std::to_string(termTimeOut.count())}}};
}

App Stage::Beating(const std::string& name, const std::string& environment) {
  return {name,
          kHelloService,
          {},
          {{"isReporting", "true"},
           {"dependList", "[iammgr]"},
           {"envArgv", "{PROC_NAME: " + name + environment + "}"}}};
}

}  // namespace PmTorture
