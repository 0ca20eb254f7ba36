#include <cstdio>
#include <string>

#include "torture/require.h"
#include "torture/runs.h"
#include "torture/stage.h"

namespace PmTorture {

void RunUpgrade(const Options&) {
  constexpr std::size_t kTimes = 10;
  Stage stage(
      2,
      {Stage::Sleeper("service", {{"restart", "on-forever"}, {"envArgv", "{PROC_NAME: service}"}})},
      {Stage::Sleeper("app")});
  PmSandbox::AgentPeer& agent = stage.Agents()[0];
  for (std::size_t left = 1; left <= kTimes; ++left) {
    Require(agent.StartApps({{"app", {}, {}}}), "a request is taken");
    Require(agent.NextReports(1) == std::vector<std::string>{"app 0"},
            "the application is started");
    Require(stage.AccessManager().NextReports(1).size() == 1, "iammgr hears of it");
    stage.ReplaceManager();
    // It supervises none of its predecessors' children, and tells of those that run under a
    // service's name.
    Require(stage.Log().Count("still runs as base app=service,") == left,
            "the new manager tells of each service that runs already");
    Require(agent.Query({"app"}) == std::map<std::string, int>{{"app", 1}},
            "it doesn't take an old application for its own");
    Require(stage.Log().Count("can not find app") == 0, "no exit of a stranger reaches it");
  }
  std::printf("upgrade: killed and started again %zu times over what its predecessors had left\n",
              kTimes);
}

}  // namespace PmTorture
