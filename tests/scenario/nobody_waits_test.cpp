// Whatever a peer does or leaves undone, the others are supervised, answered and booted as ever.

#include <cctype>
#include <cstdlib>
#include <iterator>

#include "base/text.h"
#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

// Far above what a pass, a start or an answer takes on a busy machine, and far below what waiting
// for a peer would cost: two seconds for a frame, minutes for an opening.
const std::chrono::milliseconds kSoon = PatienceFactor() * std::chrono::milliseconds(1000);

class NobodyWaits : public ScenarioTest {
 protected:
  static App Victim(const std::string& name = "victim") {
    return Service(name, {}, {{"restart", "on-forever"}});
  }

  // Ends the process of `name` and sees its successor started soon.
  void ExpectBackSoon(const std::string& name) {
    const std::size_t before = log_.Lines().size();
    const pid_t pid = LastStarted(name);
    const ProcMgr::SteadyTime killed = ProcMgr::SteadyNow();
    ASSERT_TRUE(Kill(pid));
    const auto back = log_.WaitFor("Start baseApp success appName=" + name + ",", before);
    ASSERT_TRUE(back.has_value()) << name;
    EXPECT_LT(log_.At(*back).at - killed, kSoon) << name;
  }

  // Has the answer to a query soon.
  static void ExpectAnswerSoon(AgentPeer& agent) {
    const ProcMgr::SteadyTime asked = ProcMgr::SteadyNow();
    EXPECT_EQ(agent.Query({"nobody"}), (std::map<std::string, int>{{"nobody", 1}}));
    EXPECT_LT(ProcMgr::SteadyNow() - asked, kSoon);
  }

  pid_t LastStarted(const std::string& name) {
    const std::vector<LogLine> lines = log_.Lines();
    const auto last = std::find_if(lines.rbegin(), lines.rend(), [&](const LogLine& line) {
      return line.text.find("Start baseApp success appName=" + name + ",") != std::string::npos;
    });
    if (last != lines.rend()) {
      return PmSandbox::PidIn(last->text);
    }
    ADD_FAILURE() << name << " was never started";
    return -1;
  }
};

// The bring-up and every restart of the service wait for it to serve, one opening for each life.
TEST_F(NobodyWaits, WhileAnOpeningNeverEnds) {
  AgentPeer agent(sandbox_, "agent");
  auto mute = std::make_unique<AgentPeer>(sandbox_, "proc_launcher");
  Boot({Victim(), Reporting("agent"), Reporting("proc_launcher", {{"restart", "on-forever"}}),
        Service("zealot", {}, {{"restart", "on-forever"}}), Reporting("zz-late")});
  ASSERT_TRUE(agent.BecomeReady());
  ASSERT_TRUE(mute->BecomeReady());
  ASSERT_TRUE(Await("Start baseApp success appName=zz-late,"));
  mute.reset();
  for (int life = 0; life < 3; ++life) {
    ExpectBackSoon("proc_launcher");
    ExpectBackSoon("victim");
    ExpectBackSoon("zealot");
    ExpectAnswerSoon(agent);
  }
  // The channel belongs to the life that serves at last, and so does its report.
  AgentPeer late(sandbox_, "zz-late");
  ASSERT_TRUE(late.BecomeReady());
  AgentPeer again(sandbox_, "proc_launcher");
  ASSERT_TRUE(again.BecomeReady());
  AwaitBooted();
  EXPECT_TRUE(AwaitSensor("proc_launcher", "2"));
}

// A process that a dead service left behind still holds the other end of its channel. What it says
// isn't the word of the service that has taken the dead one's place.
TEST_F(NobodyWaits, WordsOfTheDeadCountForNothing) {
  AgentPeer dead(sandbox_, "proc_launcher");
  Boot({Reporting("proc_launcher", {{"restart", "on-forever"}}), Victim()});
  ASSERT_TRUE(dead.BecomeReady());
  AwaitBooted();
  for (int life = 0; life < 5; ++life) {
    const std::size_t before = log_.Lines().size();
    std::atomic<bool> isOver = false;
    std::thread speaker([&] {
      while (!isOver && dead.ReportState(kStateReady)) {
      }
    });
    ExpectBackSoon("proc_launcher");
    // It comes up, is connected to, and says nothing.
    ASSERT_TRUE(Await("owner=proc_launcher, pid=" + std::to_string(LastStarted("proc_launcher")) +
                          ", state=STARTING restart success",
                      before));
    isOver = true;
    speaker.join();
    ASSERT_TRUE(dead.AwaitChannel());
    ExpectBackSoon("victim");
    EXPECT_EQ(Sensor("proc_launcher"), "0") << life;
    ASSERT_TRUE(dead.ReportState(kStateReady));
    EXPECT_TRUE(AwaitSensor("proc_launcher", "2"));
  }
}

// Keeps all cores busy while it lives.
class Burners {
 public:
  explicit Burners(unsigned count) {
    while (threads_.size() < count) {
      threads_.emplace_back([this] {
        while (!isOver_) {
        }
      });
    }
  }
  ~Burners() {
    isOver_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Burners(const Burners&) = delete;
  Burners& operator=(const Burners&) = delete;

 private:
  std::atomic<bool> isOver_ = false;
  std::vector<std::thread> threads_;
};

// Two lives end before they serve; the third serves, and says once that it is ready. Every second
// boot finds the cores busy. PM_TEST_BOOTS=NUMBER has it done more often.
TEST_F(NobodyWaits, TheOnlyReportOfAServiceThatDiedBeforeItServedIsNeverLost) {
  constexpr int kServices = 20;
  const char* const given = std::getenv("PM_TEST_BOOTS");
  const int boots = ProcMgr::ParseNumber<int>(given == nullptr ? "" : given).value_or(2);
  std::vector<App> apps;
  for (int i = 0; i < kServices; ++i) {
    apps.push_back(Reporting("service" + std::to_string(1000 + i), {{"restart", "on-forever"}}));
  }
  const RawPacket ready = FramePacket(StateFrame(kStateReady));
  std::size_t from = 0;
  const auto awaitLine = [&](const std::string& text) {
    const auto index = log_.WaitFor(text, from);
    from = index.value_or(from) + 1;
    return index.has_value() ? log_.At(*index).text : "";
  };
  for (int boot = 0; boot < boots; ++boot) {
    const Burners burners(boot % 2 == 0 ? 0 : std::thread::hardware_concurrency());
    Boot(apps);
    std::vector<RawPeer> peers;
    for (const App& app : apps) {
      const std::string started = "Start baseApp success appName=" + app.name + ",";
      for (int life = 0; life < 2; ++life) {
        const std::string line = awaitLine(started);
        ASSERT_NE(line, "") << app.name << " in boot " << boot;
        ASSERT_TRUE(Kill(PmSandbox::PidIn(line)));
      }
      ASSERT_NE(awaitLine(started), "") << app.name << " in boot " << boot;
      const RawServer server(sandbox_, app.name, 0);
      auto peer = server.AcceptGreeted();
      ASSERT_TRUE(peer.has_value() && peer->Send(ready)) << app.name << " in boot " << boot;
      ASSERT_NE(awaitLine("InitBaseApp:" + app.name + " success, report RUNNING!"), "")
          << app.name << " in boot " << boot;
      peers.push_back(std::move(*peer));
    }
    ASSERT_NE(awaitLine("InitBaseApplication end"), "");
    daemon_->KillAll();
    EXPECT_EQ(daemon_->SanitizerReport(), "");
  }
}

// The log is bound and never read. What its queue has no room for is lost, and counted.
TEST_F(NobodyWaits, WhileNobodyReadsTheLog) {
  constexpr std::size_t kServices = 12;
  constexpr std::size_t kFrames = 6000;
  AgentPeer agent(sandbox_, "agent");
  std::vector<App> apps = {Reporting("agent", {{"restart", "on-forever"}})};
  while (apps.size() < kServices) {
    apps.push_back(Victim("victim" + std::to_string(apps.size())));
  }
  log_.Pause();
  Boot(apps);
  ASSERT_TRUE(agent.BecomeReady());
  ASSERT_TRUE(Eventually([&] { return daemon_->Services().size() == kServices; }));
  for (const pid_t pid : daemon_->Services()) {
    const ProcMgr::SteadyTime killed = ProcMgr::SteadyNow();
    ASSERT_TRUE(Kill(pid));
    ASSERT_TRUE(Eventually([&] {
      const std::vector<pid_t> services = daemon_->Services();
      return services.size() == kServices &&
             std::find(services.begin(), services.end(), pid) == services.end();
    }));
    EXPECT_LT(ProcMgr::SteadyNow() - killed, kSoon);
  }
  ASSERT_TRUE(agent.BecomeReady());
  ExpectAnswerSoon(agent);
  // Each of them costs a line.
  for (std::size_t i = 0; i < kFrames; ++i) {
    ASSERT_TRUE(agent.SendPacket(MakePacket(kRequest, 1, "")));
  }
  ExpectAnswerSoon(agent);

  log_.Resume();
  const auto loss = log_.WaitFor(" lines of the log are lost");
  ASSERT_TRUE(loss.has_value());
  const std::string text = log_.At(*loss).text;
  const std::size_t lost = std::stoul(text.substr(text.find(": ") + 2));
  const std::string ofFrame = "RequstMsgHandler size=0 bytes";
  const std::size_t read = log_.Count(ofFrame);
  EXPECT_LT(read, kFrames);
  EXPECT_GE(lost + read, kFrames);
  // The second answer has lines, too, and so has each restart when its channel is given up.
  EXPECT_LE(lost + read, kFrames + 5 * kServices);
  // What came before the flood is all there.
  const std::vector<std::string> lines = log_.Masked(0, *loss);
  EXPECT_EQ(CountLines(lines, "InitBaseApplication end"), 1U);
  EXPECT_EQ(CountLines(lines, "Start baseApp success"), 2 * kServices);
  ASSERT_TRUE(agent.SendPacket(MakePacket(kRequest, 1, "")));
  EXPECT_TRUE(Await(ofFrame, *loss));
}

TEST_F(NobodyWaits, AnEndWhileNobodyReadsTheLogIsAnEnd) {
  log_.Pause();
  // Somebody else has filled it.
  const ProcMgr::UniqueFd other(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const std::string path = sandbox_.Outside("/dev/log");
  const ProcMgr::UnixAddress address(path);
  ASSERT_EQ(connect(other.Get(), address.Get(), address.Size()), 0);
  while (send(other.Get(), "x", 1, 0) == 1) {
  }
  ASSERT_EQ(errno, EAGAIN);
  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  Start({});
  const auto status = daemon_->WaitExit();
  EXPECT_LT(ProcMgr::SteadyNow() - begin, kSoon);
  ASSERT_TRUE(status.has_value() && WIFEXITED(*status));
  EXPECT_EQ(WEXITSTATUS(*status), 255);
}

}  // namespace
}  // namespace PmTest
