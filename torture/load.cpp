#include "torture/load.h"

#include <csignal>

#include <algorithm>

#include "base/app_state.h"
#include "torture/require.h"

namespace PmTorture {
namespace {

using PmSandbox::AgentPeer;
using PmSandbox::App;

constexpr std::size_t kAgents = 8;

std::string Numbered(const char* kind, std::size_t number) {
  return kind + std::to_string(number);
}

std::vector<AppModel> Models(std::size_t count) {
  std::vector<AppModel> models;
  for (std::size_t i = 0; i < count; ++i) {
    models.emplace_back(Numbered("plain", i), false, false);
    models.emplace_back(Numbered("stubborn", i), true, false);
    models.emplace_back(Numbered("many-", i), false, true);
  }
  return models;
}

std::vector<App> Manifests(std::size_t count) {
  std::vector<App> apps = {Stage::Sleeper("many-${[0-9]+}")};
  for (std::size_t i = 0; i < count; ++i) {
    apps.push_back(Stage::Sleeper(Numbered("plain", i)));
    apps.push_back(Stage::Stubborn(Numbered("stubborn", i)));
  }
  return apps;
}

std::vector<App> Services(std::size_t count) {
  std::vector<App> services;
  for (std::size_t i = 0; i < count; ++i) {
    services.push_back(Stage::Sleeper(Numbered("service", i), {{"restart", "on-forever"}}));
  }
  return services;
}

std::string Show(const std::map<std::string, std::vector<int>>& reports) {
  std::string text;
  for (const auto& [name, states] : reports) {
    text += " " + name + ":";
    for (const int state : states) {
      text += std::to_string(state);
    }
  }
  return text;
}

}  // namespace

Load::Load(std::uint64_t seed, std::size_t count)
    : random_(seed), apps_(Models(count)), stage_(kAgents, Services(count), Manifests(count)) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::string name = Numbered("service", i);
    services_.push_back({name, stage_.AwaitStarted(name)});
  }
}

std::size_t Load::Random(std::size_t count) {
  return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
}

void Load::Round() {
  stage_.Log().Forget();
  ended_.clear();
  gone_.clear();
  AskForAnswers();
  Compare();
  AskForMoves();
  KillServices();
  Compare();
  CompareLog();
  AwaitDeafness();
  CompareStatus();
}

void Load::Finish() {
  for (std::size_t i = 0; i < kAgents; ++i) {
    Require(stage_.Agents()[i].TermApps({"sentinel"}), "a request is taken");
    Expect("sentinel", {i, static_cast<int>(ProcMgr::ReportAppStateType::TERMINATED_NORMAL_EXIT)});
  }
  Compare();
  for (const AgentPeer& agent : stage_.Agents()) {
    Require(agent.PendingReports() == 0, agent.Name() + " has got reports that nothing explains");
  }
  Require(stage_.AccessManager().PendingReports() == 0,
          "iammgr has got reports that nothing explains");
  const auto up =
      std::count_if(apps_.begin(), apps_.end(), [](const AppModel& app) { return app.IsUp(); });
  const std::size_t processes = 1 + kAgents + services_.size() + static_cast<std::size_t>(up);
  Require(stage_.Manager().Services().size() == processes,
          "there run " + std::to_string(stage_.Manager().Services().size()) +
              " processes instead of " + std::to_string(processes));
  Require(stage_.Manager().AwaitReaped(), "a zombie was left");
}

void Load::Expect(const std::string& name, const Expected& expected) {
  expected_[expected.receiver][name].push_back(expected.state);
  all_[name].push_back(expected.state);
}

void Load::AskForAnswers() {
  Requests_ requests;
  for (AppModel& app : apps_) {
    for (const Act act : {Act::kStart, Act::kRestart, Act::kTerm}) {
      const std::size_t asker = Random(kAgents);
      if (app.IsAnsweredAtOnce(act) && Random(3) == 0) {
        requests[{act, asker}].push_back(app.Name());
        Expect(app.Name(), app.Answer(asker));
      }
    }
  }
  Send(requests);
}

void Load::AskForMoves() {
  Requests_ requests;
  for (AppModel& app : apps_) {
    const Act act = static_cast<Act>(Random(4));
    const std::size_t asker = Random(kAgents);
    if (!app.CanMove(act)) {
      continue;
    }
    if (const auto expected = app.Move(act, asker); expected.has_value()) {
      Expect(app.Name(), *expected);
    }
    if (app.HasEnded()) {
      ended_.push_back(app.Name());
    }
    if (app.HasGone()) {
      gone_.push_back(app.Name());
    }
    if (act == Act::kKill) {
      Require(PmSandbox::Kill(app.pid), app.Name() + " runs as pid " + std::to_string(app.pid));
    } else {
      requests[{act, asker}].push_back(app.Name());
    }
  }
  Send(requests);
}

void Load::KillServices() {
  using ProcMgr::ReportAppStateType;
  for (const Service& service : services_) {
    if (Random(2) == 0) {
      continue;
    }
    Require(PmSandbox::Kill(service.pid),
            service.name + " runs as pid " + std::to_string(service.pid));
    ended_.push_back(service.name);
    for (const auto state :
         {ReportAppStateType::TERMINATED_ABNORMAL_EXIT, ReportAppStateType::RUNNING_NORMAL_START}) {
      all_[service.name].push_back(static_cast<int>(state));
    }
  }
}

void Load::Send(const Requests_& requests) {
  for (const auto& [key, names] : requests) {
    std::vector<ProcMgr::Message::StartAppInfo> starts;
    std::vector<ProcMgr::Message::RestartAppInfo> restarts;
    for (const std::string& name : names) {
      starts.push_back({name, {}, {}});
      restarts.push_back({name, {}, {}});
    }
    requests_ += names.size();
    const AgentPeer& agent = stage_.Agents()[key.second];
    Require(key.first == Act::kStart     ? agent.StartApps(starts)
            : key.first == Act::kRestart ? agent.RestartApps(restarts)
                                         : agent.TermApps(names),
            "a request of " + agent.Name() + " is taken");
  }
}

void Load::Compare() {
  for (const auto& [agent, reports] : expected_) {
    (void)Take(stage_.Agents()[agent], reports);
  }
  (void)Take(stage_.AccessManager(), all_);
  expected_.clear();
  all_.clear();
}

Load::Reports Load::Take(AgentPeer& peer, const Reports& expected) {
  std::size_t count = 0;
  for (const auto& [name, states] : expected) {
    count += states.size();
  }
  Reports got;
  for (; count > 0; --count) {
    const auto report = peer.NextReport();
    if (!report.has_value()) {
      break;
    }
    got[report->appName].push_back(static_cast<int>(report->state));
    if (&peer == &stage_.AccessManager() && report->pid != 0) {
      NotePid(report->appName, report->pid);
    }
  }
  Require(got == expected, peer.Name() + " hears" + Show(got) + "\ninstead of" + Show(expected));
  return got;
}

void Load::NotePid(const std::string& name, pid_t pid) {
  const auto app = std::find_if(apps_.begin(), apps_.end(),
                                [&](const AppModel& each) { return each.Name() == name; });
  if (app != apps_.end()) {
    app->pid = pid;
    return;
  }
  const auto service = std::find_if(services_.begin(), services_.end(),
                                    [&](const Service& each) { return each.name == name; });
  if (service != services_.end()) {
    service->pid = pid;
  }
}

void Load::AwaitDeafness() {
  for (const AppModel& app : apps_) {
    if (app.IsStubborn() && app.IsRunning()) {
      Require(PmSandbox::Eventually([&] { return PmSandbox::Ignores(app.pid, SIGTERM); }),
              app.Name() + " ignores SIGTERM");
    }
  }
}

// One line for each exit, and none for any other.
void Load::CompareLog() {
  PmSandbox::LogReader& log = stage_.Log();
  Require(log.WaitForCount("PROCMGR : SetExitStatus ", ended_.size()), "each exit has its line");
  for (const std::string& name : ended_) {
    Require(log.Count("PROCMGR : SetExitStatus " + name + ",") == 1,
            "the exit of " + name + " has one line");
  }
  Require(log.Count("PROCMGR : SetExitStatus ") == ended_.size(), "no exit has a line too many");
  Require(log.Count("can not find app") == 0, "each exit has its record");
  exits_ += ended_.size();
  // A report goes out a moment before its record goes, and until then a dynamic application could
  // be started with its old owner.
  for (const std::string& name : gone_) {
    Require(log.WaitFor("Process " + name + " removed from the list of generalAppMap_").has_value(),
            "the record of " + name + " goes");
  }
}

void Load::CompareStatus() {
  std::vector<std::string> names;
  std::map<std::string, int> status;
  for (const AppModel& app : apps_) {
    names.push_back(app.Name());
    status[app.Name()] = app.IsUp() ? 0 : 1;
  }
  Require(stage_.Agents()[0].Query(names) == status, "a query tells who runs");
}

}  // namespace PmTorture
