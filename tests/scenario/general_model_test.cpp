// Requests and kills in random order, against a model of what the manager must report.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/scenario/general_test.h"

namespace PmTest {
namespace {

enum class State { kGone, kRunning, kTerminating, kRestarting };
enum class Act { kStart, kRestart, kTerm, kKill };

// One application as the model sees it.
struct Model {
  std::string name;
  bool isStubborn = false;  // Ignores SIGTERM, so that an end is awaited until it is killed.
  bool isDynamic = false;   // Has a new record, and with it a new owner, at each start.
  State state = State::kGone;
  AgentPeer* owner = nullptr;  // Null until somebody has asked for it.
  pid_t pid = 0;
  std::size_t ends = 0;  // How often it has gone.
};

struct Expected {
  AgentPeer* receiver = nullptr;  // Null: nobody is told.
  int state = -1;
};

// Whether the act is answered at once and changes nothing.
bool IsAnsweredAtOnce(const Model& app, Act act) {
  switch (app.state) {
    case State::kGone:
      return act == Act::kTerm;
    case State::kRunning:
      return act == Act::kStart;
    case State::kTerminating:
    case State::kRestarting:
      return act != Act::kKill;
  }
  return false;
}

// What the requester is told by such an answer.
Expected AnswerTo(const Model& app, AgentPeer& asker) {
  switch (app.state) {
    case State::kGone:
      return {&asker, 3};
    case State::kRunning:
      return {&asker, 0};
    default:
      return {&asker, 5};
  }
}

void SetOwner(Model& app, AgentPeer& asker) {
  if (app.owner == nullptr || app.isDynamic) {
    app.owner = &asker;
  }
}

// Moves the model on by an act that changes something.
Expected Move(Model& app, Act act, AgentPeer& asker) {
  if (act == Act::kKill) {
    const State before = app.state;
    app.state = before == State::kRestarting ? State::kRunning : State::kGone;
    app.ends += app.state == State::kGone ? 1 : 0;
    const int report = before == State::kRunning ? 4 : before == State::kTerminating ? 3 : 1;
    return {app.owner, report};
  }
  if (app.state == State::kGone) {
    SetOwner(app, asker);
    app.state = State::kRunning;
    return {app.owner, act == Act::kStart ? 0 : 1};
  }
  if (app.isStubborn) {
    app.state = act == Act::kTerm ? State::kTerminating : State::kRestarting;
    return {};
  }
  app.state = act == Act::kTerm ? State::kGone : State::kRunning;
  app.ends += app.state == State::kGone ? 1 : 0;
  return {app.owner, act == Act::kTerm ? 3 : 1};
}

class GeneralModel : public GeneralTest {
 protected:
  using Reports = std::map<std::string, std::vector<int>>;  // By name, in their order.

  void MakeApps() {
    std::vector<App> apps;
    for (const bool isStubborn : {false, true}) {
      const std::string kind = isStubborn ? "stubborn" : "plain";
      std::vector<std::string> arguments;
      for (int i = 0; i < 4; ++i) {
        const std::string name = kind + std::to_string(i);
        models_.push_back({name, isStubborn, false, State::kGone, nullptr, 0, 0});
        if (isStubborn) {
          arguments = {"--ignore-term", "--mark", Mark(name)};
        }
        apps.push_back(Service(name, arguments, {{"termTimeOut", "3600000"}}));
      }
    }
    apps.push_back(Service("many-${[0-9]}"));
    for (int i = 0; i < 4; ++i) {
      models_.push_back({"many-" + std::to_string(i), false, true, State::kGone, nullptr, 0, 0});
    }
    BootWith(apps);
  }

  std::size_t Random(std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random_);
  }
  AgentPeer& RandomAsker() { return Random(2) == 0 ? owner_ : second_; }

  void Expect(const Model& app, const Expected& expected) {
    if (expected.receiver != nullptr) {
      expected_[expected.receiver][app.name].push_back(expected.state);
      expected_[&iammgr_][app.name].push_back(expected.state);
    }
  }

  // One request for each act and asker, with all the applications that it is for.
  void SendAll(std::map<std::pair<Act, AgentPeer*>, std::vector<std::string>>& requests) {
    for (const auto& [key, names] : requests) {
      std::vector<ProcMgr::Message::StartAppInfo> starts;
      std::vector<ProcMgr::Message::RestartAppInfo> restarts;
      for (const std::string& name : names) {
        starts.push_back({name, {}, {}});
        restarts.push_back({name, {}, {}});
      }
      AgentPeer& peer = *key.second;
      ASSERT_TRUE(key.first == Act::kStart     ? peer.StartApps(starts)
                  : key.first == Act::kRestart ? peer.RestartApps(restarts)
                                               : peer.TermApps(names));
    }
    requests.clear();
  }

  // Takes as many reports as the model predicts and compares them. Reports of one application come
  // in their order; how those of several mix is open.
  void Compare() {
    for (auto& [peer, reports] : expected_) {
      std::size_t count = 0;
      for (const auto& [name, states] : reports) {
        count += states.size();
      }
      Reports got;
      for (; count > 0; --count) {
        const auto report = peer->NextReport();
        if (!report.has_value()) {
          break;
        }
        got[report->appName].push_back(static_cast<int>(report->state));
        if (peer == &iammgr_) {
          NotePid(*report);
        }
      }
      ASSERT_EQ(got, reports) << "as " << peer->Name() << " hears it";
    }
    expected_.clear();
  }

  void NotePid(const ProcMgr::Message::AppStateInfo& report) {
    for (Model& app : models_) {
      if (app.name == report.appName && report.pid != 0) {
        app.pid = report.pid;
      }
    }
  }

  // A stubborn one isn't stubborn before it says so.
  void AwaitMarks() {
    for (const Model& app : models_) {
      if (app.isStubborn && app.state == State::kRunning) {
        ASSERT_NO_FATAL_FAILURE(AwaitMark(app.name, app.pid));
      }
    }
  }

  // Any number of requests that are answered at once, of both askers.
  void AskForAnswers() {
    std::map<std::pair<Act, AgentPeer*>, std::vector<std::string>> requests;
    for (Model& app : models_) {
      for (const Act act : {Act::kStart, Act::kRestart, Act::kTerm}) {
        AgentPeer& asker = RandomAsker();
        if (IsAnsweredAtOnce(app, act) && Random(4) != 0) {
          requests[{act, &asker}].push_back(app.name);
          Expect(app, AnswerTo(app, asker));
          // An end asked for makes a record too, and its owner with it.
          if (!app.isDynamic) {
            SetOwner(app, asker);
          }
          ++requests_;
        }
      }
    }
    SendAll(requests);
  }

  // At most one act for each application that moves it on.
  void AskForMoves() {
    std::map<std::pair<Act, AgentPeer*>, std::vector<std::string>> requests;
    for (Model& app : models_) {
      const Act act = static_cast<Act>(Random(4));
      AgentPeer& asker = RandomAsker();
      if (IsAnsweredAtOnce(app, act) || (act == Act::kKill && app.state == State::kGone)) {
        continue;
      }
      Expect(app, Move(app, act, asker));
      ++requests_;
      if (act == Act::kKill) {
        ASSERT_EQ(kill(app.pid, SIGKILL), 0) << app.name;
      } else {
        requests[{act, &asker}].push_back(app.name);
      }
    }
    SendAll(requests);
  }

  void CompareStatus() {
    std::vector<std::string> names;
    std::map<std::string, int> status;
    for (const Model& app : models_) {
      names.push_back(app.name);
      status[app.name] = app.state == State::kGone ? 1 : 0;
    }
    // A report goes out a moment before its record goes, and until then a dynamic application could
    // be started with its old owner.
    for (const Model& app : models_) {
      if (app.isDynamic) {
        ASSERT_TRUE(log_.WaitForCount(
            "Process " + app.name + " removed from the list of generalAppMap_", app.ends));
      }
    }
    EXPECT_EQ(owner_.Query(names), status);
  }

  static constexpr unsigned kSeed = 20261;
  // The seed is fixed and printed, so that a failure can be had again.
  std::mt19937 random_{kSeed};  // NOLINT(cert-msc51-cpp)
  std::vector<Model> models_;
  std::map<AgentPeer*, Reports> expected_;
  int requests_ = 0;
};

TEST_F(GeneralModel, EveryReportIsTheOneThatTheModelPredicts) {
  MakeApps();
  constexpr int kRequests = 3000;
  int round = 0;
  for (; requests_ < kRequests; ++round) {
    SCOPED_TRACE("seed " + std::to_string(kSeed) + ", round " + std::to_string(round));
    ASSERT_NO_FATAL_FAILURE(AskForAnswers());
    ASSERT_NO_FATAL_FAILURE(Compare());
    ASSERT_NO_FATAL_FAILURE(AskForMoves());
    ASSERT_NO_FATAL_FAILURE(Compare());
    ASSERT_NO_FATAL_FAILURE(AwaitMarks());
    ASSERT_NO_FATAL_FAILURE(CompareStatus());
  }
  std::printf("seed %u: %d requests and kills in %d rounds\n", kSeed, requests_, round);
  ExpectNothingElse();
  std::size_t running = 3;
  for (const Model& app : models_) {
    running += app.state == State::kGone ? 0 : 1;
  }
  EXPECT_EQ(daemon_->Services().size(), running);
  EXPECT_TRUE(daemon_->Zombies().empty());
}

}  // namespace
}  // namespace PmTest
