#include "message/proc_mgr_master.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "tests/unit/message/fake_nexio.h"
#include "tests/unit/message/taken_log.h"

namespace ProcMgr {
namespace {

using Message::RequestMsg;
using Message::RequestType;
using Test::FakeNexio;
using Test::TakeLog;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using namespace std::string_literals;

class ProcMgrMasterTest : public ::testing::Test {
 protected:
  ProcMgrMasterTest() : master_([this](int fd, const NexioRequest* req) { Handle(fd, req); }) {
    fake_.Reset();
    (void)setenv("PROC_NAME", "PROCMGR", 1);
    (void)unsetenv("VENTRIX_RUN_MODE");
    (void)TakeLog();
  }
  ~ProcMgrMasterTest() override { fake_.Reset(); }

  // Opens a channel and yields its descriptor, with the log emptied.
  int Register(const std::string& name) {
    EXPECT_TRUE(master_.RegServiceCallBack(name, 7));
    (void)TakeLog();
    (void)fake_.TakeCloseCalls();
    return master_.GetFdFromProcName(name);
  }

  void Handle(int fd, const NexioRequest* req) {
    if (handler_) {
      handler_(fd, req);
    }
  }

  FakeNexio& fake_ = FakeNexio::Instance();
  std::function<void(int, const NexioRequest*)> handler_;
  ProcMgrMaster master_;
};

TEST_F(ProcMgrMasterTest, PeerThatHasGoneIsNotWaitedFor) {
  EXPECT_FALSE(
      master_.RegServiceCallBack("camera_service", 1001, {.isPeerGone = [] { return true; }}));
  EXPECT_THAT(fake_.OpenedChannels(), SizeIs(0));
  EXPECT_THAT(TakeLog(), ElementsAre("E PROCMGR : RegServiceCallBack failed!! ret=-32, errno=0"));
}

TEST_F(ProcMgrMasterTest, OpensAndFilesAChannel) {
  ASSERT_TRUE(master_.RegServiceCallBack("camera_service", 1001));
  const int fd = master_.GetFdFromProcName("camera_service");
  EXPECT_GE(fd, 1);
  EXPECT_THAT(TakeLog(), ElementsAre("I ********* PROCMGR : RegServiceCallBack success fd=" +
                                     std::to_string(fd) + ", targetProcName=camera_service"));
  const auto opened = fake_.OpenedChannels();
  ASSERT_THAT(opened, SizeIs(1));
  EXPECT_EQ(opened[0].peerName, "camera_service");
  EXPECT_EQ(opened[0].gid, 1001U);
  EXPECT_GE(opened[0].cancelFd, 0);
  std::string name;
  EXPECT_TRUE(master_.GetProcNameFromFd(fd, name));
  EXPECT_EQ(name, "camera_service");

  // A restart brings a new descriptor under the same name.
  EXPECT_TRUE(master_.UnRegServiceCallBack("camera_service"));
  EXPECT_EQ(master_.GetFdFromProcName("camera_service"), -1);
  EXPECT_EQ(fake_.TimesClosed(fd), 1);
  EXPECT_THAT(TakeLog(), ElementsAre("I PROCMGR : Master UnRegServiceCallBack success proName: "
                                     "camera_service fd: " +
                                     std::to_string(fd)));
  EXPECT_NE(Register("camera_service"), fd);
  EXPECT_FALSE(master_.GetProcNameFromFd(fd, name));
  EXPECT_THAT(TakeLog(),
              ElementsAre("E PROCMGR : GetProcNameFromFd failed: fd: " + std::to_string(fd)));
}

TEST_F(ProcMgrMasterTest, OpenTimeoutFollowsTheRunMode) {
  const std::pair<const char*, std::uint32_t> cases[] = {
      {nullptr, 180000}, {"0", 180000}, {"1", 1800000}, {"11", 180000}, {"", 180000}};
  for (const auto& [mode, timeout] : cases) {
    if (mode != nullptr) {
      (void)setenv("VENTRIX_RUN_MODE", mode, 1);
    }
    (void)Register("timeouts");
    EXPECT_EQ(fake_.OpenedChannels().back().timeout, timeout) << (mode == nullptr ? "-" : mode);
  }
}

struct OpenCase {
  const char* name;
  std::vector<int> results;
  bool opens;
  std::vector<std::string> log;  // Without the line of a success.
};

TEST_F(ProcMgrMasterTest, OpenResults) {
  const std::string again = "E PROCMGR : NexioOpen failed, try again";
  const auto failed = [](int ret) {
    return "E PROCMGR : RegServiceCallBack failed!! ret=" + std::to_string(ret) + ", errno=0";
  };
  const OpenCase cases[] = {
      {"descriptor 0", {0}, false, {failed(0)}},
      {"busy once", {-11}, true, {again}},
      {"busy twice", {-11, -11}, false, {again, failed(-11)}},
      {"busy, then denied", {-11, -13}, false, {again, failed(-13)}},
      {"no peer", {-110}, false, {failed(-110)}},
  };
  for (const OpenCase& test : cases) {
    SCOPED_TRACE(test.name);
    fake_.Reset();
    fake_.ScriptOpen(test.results);
    EXPECT_EQ(master_.RegServiceCallBack("results", 7), test.opens);
    EXPECT_EQ(master_.GetFdFromProcName("results") >= 1, test.opens);
    std::vector<std::string> log = TakeLog();
    if (test.opens && !log.empty()) {
      log.pop_back();
    }
    EXPECT_EQ(log, test.log);
    EXPECT_THAT(fake_.Sleeps(), IsEmpty());
  }
}

TEST_F(ProcMgrMasterTest, RegisterWithoutNames) {
  (void)unsetenv("PROC_NAME");
  EXPECT_FALSE(master_.RegServiceCallBack("", 7));
  EXPECT_THAT(TakeLog(), ElementsAre("E ********* PROCMGR : RegServiceCallBack begin "
                                     ":pmProcName is null, targetProcName=",
                                     "E PROCMGR : RegServiceCallBack failed: procName is null"));
  EXPECT_THAT(fake_.OpenedChannels(), IsEmpty());
  EXPECT_TRUE(master_.RegServiceCallBack("goes on", 7));
}

struct CloseCase {
  const char* name;
  std::vector<int> results;
  std::size_t tries;
  int error;  // 0 for success.
};

TEST_F(ProcMgrMasterTest, CloseResults) {
  const CloseCase cases[] = {
      {"at once", {0}, 1, 0},
      {"more than 0", {3}, 1, 0},
      {"busy three times", {-16, -16, -16, 0}, 4, 0},
      {"busy to the last try but one", std::vector<int>(19, -16), 20, 0},
      {"always busy", std::vector<int>(30, -16), 20, -16},
      {"unknown", {-9}, 1, -9},
      {"busy, then broken", {-16, -32}, 2, -32},
  };
  for (const CloseCase& test : cases) {
    SCOPED_TRACE(test.name);
    fake_.Reset();
    const int fd = Register("closing");
    fake_.ScriptClose(test.results);
    EXPECT_EQ(master_.UnRegServiceCallBack("closing"), test.error == 0);
    EXPECT_EQ(fake_.TakeCloseCalls(), std::vector<int>(test.tries, fd));
    EXPECT_EQ(fake_.Sleeps(), std::vector<std::int64_t>(test.tries - 1, 100'000'000));
    EXPECT_EQ(master_.GetFdFromProcName("closing"), -1);
    if (test.error != 0) {
      EXPECT_THAT(TakeLog(), ElementsAre("E PROCMGR : Master UnRegServiceCallBack failed: "
                                         "NexioClosePipe failed err code: " +
                                         std::to_string(test.error)));
    }
  }
}

TEST_F(ProcMgrMasterTest, AChannelThatStayedBusyGetsAnotherTryLater) {
  const int fd = Register("stubborn");
  fake_.ScriptClose(std::vector<int>(21, -16));
  EXPECT_FALSE(master_.UnRegServiceCallBack("stubborn"));
  EXPECT_THAT(fake_.TakeCloseCalls(), SizeIs(20));
  EXPECT_TRUE(master_.RegServiceCallBack("other", 7));
  EXPECT_EQ(fake_.TimesClosed(fd), 0);
  EXPECT_TRUE(master_.UnRegServiceCallBack("other"));
  EXPECT_EQ(fake_.TimesClosed(fd), 1);
}

TEST_F(ProcMgrMasterTest, ClosingAnUnknownNameAsksTheLibraryAllTheSame) {
  (void)Register("other");
  EXPECT_FALSE(master_.UnRegServiceCallBack("never registered"));
  EXPECT_EQ(fake_.TakeCloseCalls(), std::vector<int>{-1});
}

TEST_F(ProcMgrMasterTest, FramesReachTheHandler) {
  const int fd = Register("sender");
  std::vector<std::pair<int, const NexioRequest*>> handled;
  handler_ = [&](int from, const NexioRequest* req) { handled.emplace_back(from, req); };
  const NexioRequest request;
  fake_.Deliver(fd, &request);
  EXPECT_THAT(handled, ElementsAre(std::pair(fd, &request)));
  fake_.Deliver(fd, nullptr);
  ProcMgrMaster::ProcMgrMasterRequstMsgHandler(0, &request);
  EXPECT_THAT(handled, SizeIs(1));
  EXPECT_THAT(TakeLog(),
              ElementsAre("E PROCMGR : Master ProcMgrMasterRequstMsgHandler revice req is null "
                          ": fd: " +
                              std::to_string(fd),
                          "E PROCMGR : ProcMgrMasterRequstMsgHandler failed: invalid fd"));
}

// The peer's first frame arrives before the opening has returned, let alone been filed.
TEST_F(ProcMgrMasterTest, AFrameInTheInstantOfTheOpeningFindsItsSender) {
  std::atomic<int> found = 0;
  handler_ = [&](int fd, const NexioRequest*) {
    std::string name;
    found += master_.GetProcNameFromFd(fd, name) && name == "eager" ? 1 : 0;
  };
  std::thread library;
  fake_.OnOpen([&](int fd) {
    std::promise<void> begun;
    library = std::thread([&, fd] {
      begun.set_value();
      const NexioRequest request;
      fake_.Deliver(fd, &request);
    });
    begun.get_future().wait();
  });
  constexpr int kRounds = 300;
  for (int i = 0; i < kRounds; ++i) {
    EXPECT_TRUE(master_.RegServiceCallBack("eager", 7));
    library.join();
    EXPECT_TRUE(master_.UnRegServiceCallBack("eager"));
  }
  EXPECT_EQ(found, kRounds);
}

// Neither a stranger's frame nor one of a channel that is going away holds a thread up.
TEST_F(ProcMgrMasterTest, NoWaitForADescriptorThatWillNotBeFiled) {
  const int fd = Register("going");
  fake_.ScriptClose(std::vector<int>(21, -16));
  EXPECT_FALSE(master_.UnRegServiceCallBack("going"));
  std::string name;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(master_.GetProcNameFromFd(4711, name));
  fake_.OnOpen([&](int) { EXPECT_FALSE(master_.GetProcNameFromFd(fd, name)); });
  (void)Register("other");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

// The closing thread holds what the callback wants: no dead end, and no descriptor stays behind.
TEST_F(ProcMgrMasterTest, ABusyChannelClosesWhenItsCallbackReturns) {
  const int fd = Register("busy");
  Mutex wanted;
  std::promise<void> begun;
  handler_ = [&](int, const NexioRequest*) {
    begun.set_value();
    const MutexLock lock(wanted);
  };
  std::thread library;
  {
    const MutexLock lock(wanted);
    library = std::thread([&] {
      const NexioRequest request;
      fake_.Deliver(fd, &request);
    });
    begun.get_future().wait();
    EXPECT_FALSE(master_.UnRegServiceCallBack("busy"));
    EXPECT_EQ(fake_.TimesClosed(fd), 0);
  }
  library.join();
  EXPECT_EQ(fake_.TimesClosed(fd), 1);
  // The mark went with the channel.
  EXPECT_THAT(fake_.TakeCloseCalls(), SizeIs(21));
}

TEST_F(ProcMgrMasterTest, ACallbackThatReturnsBetweenTwoTriesCloses) {
  const int fd = Register("busy");
  std::promise<void> begun;
  std::promise<void> release;
  handler_ = [&](int, const NexioRequest*) {
    begun.set_value();
    release.get_future().wait();
  };
  std::thread library([&] {
    const NexioRequest request;
    fake_.Deliver(fd, &request);
  });
  begun.get_future().wait();
  fake_.OnSleep([&] {
    if (library.joinable()) {
      release.set_value();
      library.join();
    }
  });
  EXPECT_TRUE(master_.UnRegServiceCallBack("busy"));
  EXPECT_EQ(fake_.TimesClosed(fd), 1);
}

// Frames, closing and reopening of one channel from several threads: each descriptor is closed
// once, whoever comes first.
TEST_F(ProcMgrMasterTest, ClosingRacesWithCallbacks) {
  std::atomic<bool> over = false;
  std::atomic<int> current = 0;
  std::thread library([&] {
    while (!over) {
      const NexioRequest request;
      fake_.Deliver(current, &request);
    }
  });
  std::vector<int> fds;
  for (int i = 0; i < 500; ++i) {
    EXPECT_TRUE(master_.RegServiceCallBack("racer", 7));
    fds.push_back(master_.GetFdFromProcName("racer"));
    current = fds.back();
    (void)master_.UnRegServiceCallBack("racer");
  }
  over = true;
  library.join();
  (void)Register("last");
  for (const int fd : fds) {
    EXPECT_EQ(fake_.TimesClosed(fd), 1) << fd;
  }
}

TEST_F(ProcMgrMasterTest, DetachWaitsForTheHandler) {
  const int fd = Register("late");
  std::promise<void> begun;
  std::atomic<int> left = 0;
  handler_ = [&](int, const NexioRequest*) {
    begun.set_value();
    std::this_thread::yield();
    ++left;
  };
  const NexioRequest request;
  std::thread library([&] { fake_.Deliver(fd, &request); });
  begun.get_future().wait();
  master_.Detach();
  EXPECT_EQ(left, 1);
  library.join();
  fake_.Deliver(fd, &request);
  EXPECT_EQ(left, 1);
}

TEST_F(ProcMgrMasterTest, SendsFramesInOrderAndStopsAtTheFirstFailure) {
  Serialization::PieceList pieces(3);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    pieces[i].size = i + 1;
  }
  EXPECT_FALSE(master_.SendRequestMsg(5, {}));
  fake_.ScriptSend({-11, -11, 0, -32});
  EXPECT_FALSE(master_.SendRequestMsg(5, pieces));
  const auto sent = fake_.TakeSent();
  ASSERT_THAT(sent, SizeIs(1));
  EXPECT_EQ(sent[0].fd, 5);
  EXPECT_EQ(sent[0].data, std::string(reinterpret_cast<const char*>(pieces.data()), 3984));
  EXPECT_TRUE(master_.SendRequestMsg(5, pieces));
  EXPECT_THAT(fake_.TakeSent(), SizeIs(3));
  EXPECT_THAT(TakeLog(),
              ElementsAre("E PROCMGR : Master SendRequestMsg failed: RequestPieceMsg is empty",
                          "E PROCMGR : Master SendRequestMsg failed, err code=-32, fd=5"));
}

// The body of the one frame that was sent, behind its type.
std::string OnlyBody(RequestType type) {
  const auto sent = FakeNexio::Instance().TakeSent();
  EXPECT_THAT(sent, SizeIs(1));
  if (sent.size() != 1 || sent[0].data.size() != sizeof(RequestMsg)) {
    return "not one frame";
  }
  RequestMsg frame;
  std::memcpy(&frame, sent[0].data.data(), sizeof(frame));
  EXPECT_EQ(frame.type, type);
  return {frame.data, frame.size};
}

TEST_F(ProcMgrMasterTest, ReportsStates) {
  (void)Register("owner");
  EXPECT_TRUE(master_.ReportAppState({}, "owner"));
  EXPECT_TRUE(master_.ReportAppState({}, "nobody"));
  EXPECT_THAT(fake_.TakeSent(), IsEmpty());
  EXPECT_TRUE(master_.ReportAppState({{"bbb", 12, 34, 0, 0}, {"a", 13, 35, 4, 1}}, "owner"));
  EXPECT_EQ(OnlyBody(RequestType::APP_STATE_REPORT), "2#a#13#35#4#1#bbb#12#34#0#0#");
  EXPECT_THAT(TakeLog(),
              ElementsAre(HasSubstr("[BOOT_TRACE][PM] PM report appState to owner, "
                                    "appState=RUNNING_NORMAL_START, appName=bbb, pid=12"),
                          HasSubstr("[BOOT_TRACE][PM] PM report appState to owner, "
                                    "appState=TERMINATED_ABNORMAL_EXIT, appName=a, pid=13")));
}

TEST_F(ProcMgrMasterTest, ReportsStatesInVain) {
  const int fd = Register("owner");
  const std::vector<Message::AppStateInfo> one{{"a", 1, 2, 0, 0}};
  EXPECT_FALSE(master_.ReportAppState(one, "nobody"));
  EXPECT_THAT(TakeLog(), ElementsAre("E PROCMGR : Master ReportAppState failed: invalid fd, "
                                     "owner=nobody"));
  fake_.ScriptSend({-32});
  EXPECT_FALSE(master_.ReportAppState(one, "owner"));
  EXPECT_THAT(TakeLog(), Contains("E PROCMGR : Master ReportAppState failed: SendRequestMsg "
                                  "owner failed, fd:" +
                                  std::to_string(fd)));
  EXPECT_FALSE(master_.ReportAppState({{std::string(3960, 'n'), 1, 2, 0, 0}}, "owner"));
  EXPECT_THAT(TakeLog(), Contains("E PROCMGR : Master ReportAppState failed: "
                                  "PackAppStateRequest failed, owner=owner"));
  // Short enough for its packer, too long for a window.
  EXPECT_FALSE(master_.ReportAppState({{std::string(3948, 'n'), 1, 2, 0, 0}}, "owner"));
  EXPECT_THAT(TakeLog(),
              Contains("E PROCMGR : Master SendRequestMsg failed: RequestPieceMsg is empty"));
  EXPECT_THAT(fake_.TakeSent(), IsEmpty());
}

TEST_F(ProcMgrMasterTest, ReportsDetailStatus) {
  const int fd = Register("owner");
  EXPECT_TRUE(master_.ReportAppDetailStatus({}, "nobody"));
  EXPECT_TRUE(master_.ReportAppDetailStatus({{"b", 2}, {"a", 0}}, "owner"));
  EXPECT_EQ(OnlyBody(RequestType::APP_DETAIL_STATUS_REPORT),
            "\2\0\0\0\1\0\0\0a\0\0\0\0\1\0\0\0b\2\0\0\0"s);
  EXPECT_THAT(TakeLog(),
              ElementsAre(HasSubstr("[BOOT_TRACE][PM] PM ReportAppDetailStatus to owner, "
                                    "appName=a, status=0"),
                          HasSubstr("[BOOT_TRACE][PM] PM ReportAppDetailStatus to owner, "
                                    "appName=b, status=2")));
  EXPECT_FALSE(master_.ReportAppDetailStatus({{"a", 0}}, "nobody"));
  fake_.ScriptSend({-9});
  EXPECT_FALSE(master_.ReportAppDetailStatus({{"a", 0}}, "owner"));
  EXPECT_FALSE(master_.ReportAppDetailStatus({{std::string(3953, 'n'), 0}}, "owner"));
  EXPECT_THAT(
      TakeLog(),
      ElementsAre("E PROCMGR : Master ReportAppDetailStatus: invalid fd, owner=nobody",
                  "E PROCMGR : Master SendRequestMsg failed, err code=-9, fd=" + std::to_string(fd),
                  "E PROCMGR : Master ReportAppDetailStatus: SendRequestMsg owner failed, fd:" +
                      std::to_string(fd),
                  "E PROCMGR : ReportAppDetailStatus SerializeMessage failed"));
  EXPECT_THAT(fake_.TakeSent(), IsEmpty());
}

}  // namespace
}  // namespace ProcMgr
