// Peers that break the rules of the wire, and what that costs the others: nothing.
#include <gtest/gtest.h>

#include <csignal>

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
    EXPECT_EQ(log_.Count("bystander lost heart msg"), 1U);
  }

  AgentPeer bystander_{sandbox_, "bystander"};
  AgentPeer victim_{sandbox_, "victim"};
  std::uint64_t beats_ = 0;
};

TEST_F(HostileAgent, WrongGroupCantTakeAName) {
  const RawServer thief(sandbox_, "aaa", 4321);
  Boot({Reporting("aaa"), Service("zzz")});
  AwaitBooted();
  EXPECT_EQ(log_.Count("PROCMGR : RegServiceCallBack failed!! ret=-13,"), 1U);
  EXPECT_EQ(log_.Count("Start baseApp success appName=zzz,"), 1U);
  // The service itself is supervised all the same.
  ASSERT_EQ(kill(AwaitStarted("aaa"), SIGKILL), 0);
  EXPECT_TRUE(Await("PROCMGR : Process aaa removed from the list of executedBaseApp_"));
}

TEST_F(HostileAgent, BrokenPacketEndsItsOwnConnectionOnly) {
  BootBoth();
  const RawPacket good = FramePacket(HeartFrame(1));
  const auto changed = [&](auto change) {
    RawPacket packet = good;
    change(packet);
    return EncodePacket(packet);
  };
  struct Case {
    std::string bytes;
    std::string fault;
  };
  const Case cases[] = {
      {EncodePacket(good).substr(0, 15), "packet shorter than its header"},
      {std::string(16, '\0'), "wrong magic"},
      {changed([](RawPacket& p) { p.version = 2; }), "unknown version"},
      {changed([](RawPacket& p) { p.kind = 4; }), "unknown kind"},
      {changed([](RawPacket& p) { p.size += 1; }), "size doesn't agree with the packet's length"},
      {changed([](RawPacket& p) { p.size -= 1; }), "size doesn't agree with the packet's length"},
      {changed([](RawPacket& p) { p.size = 0xffffffff; }), ""},
      {EncodePacket(MakePacket(kRequest, 1, std::string(65537, 'x'))), "packet too long"},
      {EncodePacket(MakePacket(kHello, 1, "victim")), "unexpected hello"},
      {EncodePacket(MakePacket(kResponse, 7, "0")), "response to a request that was never sent"},
  };
  pid_t pid = AwaitStarted("victim");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    const std::size_t before = log_.Lines().size();
    Beat(20);
    ASSERT_TRUE(victim_.SendBytes(c.bytes));
    Beat(20);
    EXPECT_TRUE(victim_.AwaitClosed());
    EXPECT_TRUE(Await("NEXIO : connection closed: " + c.fault, before));
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_TRUE(victim_.BecomeReady());
    pid = AwaitStarted("victim", before);
  }
  EXPECT_EQ(log_.Count("NEXIO : connection closed: "), std::size(cases));
  ExpectNoBeatLost();
  EXPECT_TRUE(log_.WaitForCount("msg from victim report state=", std::size(cases) + 1));
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

}  // namespace
}  // namespace PmTest
