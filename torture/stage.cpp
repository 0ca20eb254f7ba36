#include "torture/stage.h"

#include <csignal>
#include <cstdio>
#include <exception>

#include "torture/require.h"

namespace PmTorture {
namespace {

using PmSandbox::App;

constexpr const char* kBaseFile = "/run/sandbox/base.yaml";
constexpr const char* kEntryFile = "/run/sandbox/entries.yaml";
constexpr const char* kSampleApp = "/opt/torture/sample_app";

App Agent(const std::string& name, PmSandbox::Keys keys) {
  App app = Stage::Sleeper(name, std::move(keys));
  app.keys.emplace_back("isReporting", "true");
  return app;
}

}  // namespace

Stage::Stage(std::size_t agents, const std::vector<App>& services, const std::vector<App>& apps)
    : services_(services.size()) {
  sandbox_.MakePlatformGroups("0");
  sandbox_.InstallProgram(PmSandbox::ProgramPath("sample_app"), kSampleApp);
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

Stage::~Stage() {
  constexpr std::size_t kShown = 4000;
  if (std::uncaught_exceptions() > 0) {
    const std::string log = log_.Text();
    (void)std::fprintf(stderr, "the end of the log:\n%s\n",
                       log.c_str() + (log.size() > kShown ? log.size() - kShown : 0));
  }
}

void Stage::Boot() {
  managers_.emplace_back(sandbox_, std::vector<std::string>{kBaseFile});
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

App Stage::Sleeper(const std::string& name, PmSandbox::Keys keys) {
  return {name, "/bin/sleep", {"1000000"}, std::move(keys)};
}

App Stage::Stubborn(const std::string& name, PmSandbox::Keys keys) {
  keys.emplace_back("termTimeOut", "3600000");
  return {name, kSampleApp, {"--ignore-term"}, std::move(keys)};
}

bool Stage::IsDeaf(pid_t pid) {
  const std::string ignored = PmSandbox::StatusField(pid, "SigIgn");
  return !ignored.empty() && ((std::stoull(ignored, nullptr, 16) >> (SIGTERM - 1)) & 1) != 0;
}

}  // namespace PmTorture
