// Agents that break the rules of the wire, don't read, stand still, beat or fall silent, and what
// that costs the others: nothing.
#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "sandbox/agent_peer.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

using ProcMgr::Message::RequestType;

constexpr std::size_t kNone = std::string::npos;

class HostileAgent : public ScenarioTest {
 protected:
  // Boots "bystander" and "victim"; the latter comes back with a new channel whenever it is killed.
  void BootBoth() {
    Boot({Reporting("bystander"), Reporting("victim", {{"restart", "on-forever"}})});
    ASSERT_TRUE(bystander_.BecomeReady() && victim_.BecomeReady());
    // The last line of a boot, so that whatever comes from now on is the agents' doing.
    ASSERT_TRUE(Await("PROCMGR : EnableWatchDog flag="));
  }

  void Beat(int count) {
    for (int i = 0; i < count; ++i) {
      ASSERT_TRUE(bystander_.Send(HeartFrame(++beats_)));
    }
  }

  // Every beat up to now has arrived in its order: the one behind a gap names the one before it.
  void ExpectNoBeatLost() {
    ASSERT_TRUE(bystander_.Send(HeartFrame(beats_ + 2)));
    EXPECT_TRUE(Await("PROCMGR : bystander lost heart msg, index is " + std::to_string(beats_) +
                      " / " + std::to_string(beats_ + 2)));
    ExpectTold("bystander lost heart msg");
  }

  AgentPeer bystander_{sandbox_, "bystander"};
  AgentPeer victim_{sandbox_, "victim"};
  std::uint64_t beats_ = 0;
};

TEST_F(HostileAgent, WrongGroupCantTakeAName) {
  const RawServer thief(sandbox_, "aaa", 4321);
  Boot({Reporting("aaa"), Service("zzz")});
  AwaitBooted();
  ExpectTold("PROCMGR : RegServiceCallBack failed!! ret=-13,");
  ExpectTold("aaa is served by another group, pid=" + std::to_string(getpid()) +
             ", uid=0, gid=4321");
  ExpectTold("Start baseApp success appName=zzz,");
  // The service itself is supervised all the same.
  ASSERT_TRUE(Kill(AwaitStarted("aaa")));
  EXPECT_TRUE(Await("PROCMGR : Process aaa removed from the list of executedBaseApp_"));
}

// Before its first start and before each other. In a folder with the sticky bit the service itself
// can't remove what others have made.
TEST_F(HostileAgent, WhoeverTakesANameFirstCantKeepAServiceFromIt) {
  const std::string path = sandbox_.Outside("/run/nexio/aaa.sock");
  sandbox_.AddUser("pilot", 7002, 7002, "/home/pilot");
  constexpr const char* kOwn = "/opt/test/pilots";
  sandbox_.InstallProgram(ProgramPath("test-service"), kOwn, 7002, 7002);
  const auto giveAway = [&path] { ASSERT_EQ(lchown(path.c_str(), 65534, 65534), 0); };
  const auto isServed = [&path] {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && status.st_uid == 7002;
  };
  const RawServer thief(sandbox_, "aaa", 65534);
  giveAway();
  Boot({{"aaa",
         kOwn,
         {"--serve", "aaa"},
         {{"uid", "pilot"}, {"gid", "pilot"}, {"restart", "on-forever"}}}});
  const pid_t first = AwaitStarted("aaa");
  const std::string told = "aaa.sock stood in a service's way and is removed, pid=";
  ExpectTold(told + std::to_string(getpid()) + ", uid=0, gid=65534");
  ASSERT_TRUE(Eventually(isServed));

  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(symlink(kBaseFile, path.c_str()), 0);
  giveAway();
  ASSERT_TRUE(Kill(first));
  EXPECT_TRUE(Eventually(isServed));
  EXPECT_TRUE(log_.WaitForCount(told, 2));
}

TEST_F(HostileAgent, BrokenFrameIsDroppedAndTheChannelGoesOn) {
  BootBoth();
  const std::string frame = FrameBytes(StateFrame(kStateReady));
  auto oversized = StateFrame(kStateReady);
  oversized.size = ProcMgr::Message::kFrameDataSize + 1;
  struct Case {
    std::string data;
    std::string line;  // Empty: dropped without a word.
  };
  const std::string size = "PROCMGR : RequstMsgHandler size=";
  const Case cases[] = {
      {"", size + "0 bytes"},
      {frame + "x", size + "3985 bytes"},
      {std::string(65536, 'x'), size + "65536 bytes"},
      {FrameBytes(oversized), "3965"},
      {FrameBytes(TextFrame(RequestType::APP_STATE_REPORT, "1#a#1#1#0#0#")), ""},
      {FrameBytes(TextFrame(RequestType{11}, "1#0#")), ""},
      {FrameBytes(TextFrame(RequestType{0xffffffff}, "1#0#")), ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    const std::size_t before = log_.Lines().size();
    Beat(20);
    ASSERT_TRUE(victim_.SendPacket(MakePacket(kRequest, 1, c.data)));
    Beat(20);
    // The channel is in order, so what came before the report has been dealt with.
    ASSERT_TRUE(victim_.ReportState(kStateReady));
    const auto report = log_.WaitFor("msg from victim report state=", before);
    ASSERT_TRUE(report.has_value());
    std::vector<std::string> lines = log_.Masked(before, *report);
    // On a loaded machine heart messages may come late, and the beats that nobody sends be missed.
    std::erase_if(lines, [](const std::string& line) {
      return line.find("bystander") != kNone || line.find("heart beat") != kNone;
    });
    ASSERT_EQ(lines.size(), c.line.empty() ? 0U : 1U) << ::testing::PrintToString(lines);
    EXPECT_TRUE(c.line.empty() || lines[0].find(c.line) != kNone) << lines[0];
  }
  // The same packet again, its sequence number with it, is a request like any other.
  const std::size_t before = log_.Count("msg from victim report state=");
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(victim_.Send(StateFrame(kStateReady)));
  }
  EXPECT_TRUE(log_.WaitForCount("msg from victim report state=", before + 100));
  ExpectNoBeatLost();
}

TEST_F(HostileAgent, ChannelThatIsCutIsOpenedAgainWhileTheServiceLives) {
  const std::string told = "PROCMGR : the channel of victim was cut and is opened again, pid=";
  BootBoth();
  const pid_t first = AwaitStarted("victim");
  victim_.Close();
  ASSERT_TRUE(victim_.AwaitChannel());
  ExpectTold(told + std::to_string(first));
  EXPECT_EQ(victim_.Query({"unheard-of"}), (std::map<std::string, int>{{"unheard-of", 1}}));

  // An end cuts it, too, and a successor's channel is nothing new.
  const std::size_t before = log_.Lines().size();
  ASSERT_TRUE(Kill(first));
  victim_.Close();
  EXPECT_NE(AwaitStarted("victim", before), first);
  ASSERT_TRUE(victim_.BecomeReady());
  // Longer than a cut is looked at.
  ASSERT_FALSE(victim_.AwaitChannel(std::chrono::seconds(1)));
  ExpectTold(told);
  ExpectNoBeatLost();
}

class SlowAgent : public ScenarioTest {
 protected:
  // Sends one datagram as a service that beats does.
  void Beat(const std::string& name) {
    const ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const ProcMgr::UnixAddress address(sandbox_.Outside("/run/heartbeat.sock"));
    ASSERT_EQ(sendto(fd.Get(), name.data(), name.size(), 0, address.Get(), address.Size()),
              static_cast<ssize_t>(name.size()));
  }
};

// An access manager that stands still takes no reports. Each costs its sender the retries and no
// more, and whoever is owed one too gets it.
TEST_F(SlowAgent, ReaderThatStandsStillDelaysNobodyForGood) {
  const RawServer deaf(sandbox_, "iammgr", 0);
  AgentPeer owner(sandbox_, "owner");
  Boot({Reporting("iammgr"), Reporting("owner", {{"restart", "on-forever"}})});
  const auto iammgr = deaf.AcceptGreeted();
  ASSERT_TRUE(iammgr.has_value());
  ASSERT_TRUE(iammgr->Send(FramePacket(StateFrame(kStateReady))));
  ASSERT_TRUE(owner.BecomeReady());
  AwaitBooted();
  const std::size_t descriptors = daemon_->Descriptors().size();
  const std::size_t threads = daemon_->ThreadCount();
  const std::string full = "PROCMGR : Master SendRequestMsg failed, err code=-11,";
  // Every request makes one report to both; the queue holds some hundreds at the very most.
  int sent = 0;
  while (log_.Count(full) == 0) {
    ASSERT_LT(sent, 5000) << "the queue never fills";
    ASSERT_TRUE(owner.TermApps({"nobody" + std::to_string(sent)}));
    ++sent;
    ASSERT_EQ(owner.NextReports(1).size(), 1U);
  }
  EXPECT_TRUE(Await("PROCMGR : CheckThread : report general apps' changes to IAM failed"));

  // The owner's next request is under way, waiting for iammgr, when its process dies: closing its
  // channel has to come to an end, and the service comes back.
  const std::size_t before = log_.Lines().size();
  const pid_t pid = AwaitStarted("owner");
  ASSERT_TRUE(owner.TermApps({"last"}));
  ASSERT_TRUE(Await("TERM_APP msg from owner, appList=last,", before));
  ASSERT_TRUE(Kill(pid));
  ASSERT_TRUE(owner.BecomeReady());
  ASSERT_TRUE(Await(
      "PROCMGR: CheckThread : owner=owner, pid=" + std::to_string(AwaitStarted("owner", before)) +
          ", state=STARTING restart success",
      before));
  EXPECT_TRUE(Eventually([&] { return daemon_->Descriptors().size() <= descriptors; }))
      << ::testing::PrintToString(daemon_->Descriptors());
  EXPECT_TRUE(Eventually([&] { return daemon_->ThreadCount() <= threads; }));
}

TEST_F(SlowAgent, LostAndRecoveredHeartbeatsReachTheSensor) {
  AgentPeer iammgr(sandbox_, "iammgr");
  Boot({Reporting("iammgr")});
  ASSERT_TRUE(iammgr.BecomeReady());
  AwaitBooted();
  Beat("iammgr");
  Beat("nobody");
  const std::string lost =
      "Process heart beat notify. (app=iammgr,pid=" + std::to_string(getpid()) + ",status=lost)";
  const auto loss = log_.WaitFor(lost);
  ASSERT_TRUE(loss.has_value());
  EXPECT_TRUE(AwaitSensor("iammgr", "0"));
  Beat("iammgr");
  ASSERT_TRUE(Await("status=recovery)", *loss));
  EXPECT_TRUE(AwaitSensor("iammgr", "2"));
  // Told once each, and the process has been left alone. On a machine that is slow enough the wait
  // for the first beat may have been told before.
  ExpectTold(lost);
  EXPECT_EQ(CountLines(log_.Masked(*loss), "status=recovery"), 1U);
  EXPECT_EQ(log_.Count("PROCMGR : Restarting"), 0U);
}

}  // namespace
}  // namespace PmTest
