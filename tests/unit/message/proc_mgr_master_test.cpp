#include "message/proc_mgr_master.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>
#include <utility>

#include "base/mutex.h"
#include "tests/support/taken_log.h"
#include "tests/unit/message/fake_nexio.h"

namespace ProcMgr {
namespace {

using Message::RequestMsg;
using Message::RequestType;
using PmTest::TakeLog;
using Test::FakeNexio;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using namespace std::string_literals;

constexpr gid_t kGid = 1001;

class ProcMgrMasterTest : public ::testing::Test {
 protected:
  ProcMgrMasterTest() : master_([this](int fd, const NexioRequest* req) { Handle(fd, req); }) {
    fake_.Reset();
    (void)setenv("PROC_NAME", "PROCMGR", 1);
    (void)unsetenv("VENTRIX_RUN_MODE");
    (void)TakeLog();
  }
  ~ProcMgrMasterTest() override { fake_.Reset(); }

  // Begins to open a channel; the future tells how it ended.
  std::future<bool> Begin(const std::string& name, const OpenTerms& terms = {}) {
    const auto outcome = std::make_shared<std::promise<bool>>();
    master_.RegServiceCallBack(name, kGid, terms,
                               [outcome](bool isOpen) { outcome->set_value(isOpen); });
    return outcome->get_future();
  }
  bool Open(const std::string& name) { return Begin(name).get(); }

  // Opens a channel and yields its descriptor, with the log emptied.
  int Register(const std::string& name) {
    EXPECT_TRUE(Open(name));
    (void)TakeLog();
    fake_->closeCalls.clear();
    return master_.GetFdFromProcName(name);
  }

  // Delivers a frame on a thread of the library's, which `handle` deals with; returns when it has
  // begun to.
  std::thread DeliverAside(int fd, std::function<void()> handle) {
    auto begun = std::make_shared<std::promise<void>>();
    handler_ = [begun, handle = std::move(handle)](int, const NexioRequest*) {
      begun->set_value();
      handle();
    };
    std::thread library([this, fd] { fake_.Deliver(fd, &request_); });
    begun->get_future().wait();
    return library;
  }

  void Handle(int fd, const NexioRequest* req) {
    if (handler_) {
      handler_(fd, req);
    }
  }

  FakeNexio& fake_ = FakeNexio::Instance();
  const NexioRequest request_;
  std::function<void(int, const NexioRequest*)> handler_;
  ProcMgrMaster master_;
};

TEST_F(ProcMgrMasterTest, OpensAndFilesAChannel) {
  ASSERT_TRUE(Open("camera_service"));
  const int fd = master_.GetFdFromProcName("camera_service");
  EXPECT_GE(fd, 1);
  EXPECT_THAT(fake_->openedNames, ElementsAre("camera_service"));
  EXPECT_EQ(fake_->opened[0].gid, kGid);
  EXPECT_GE(fake_->opened[0].cancelFd, 0);
  std::string name;
  EXPECT_TRUE(master_.GetProcNameFromFd(fd, name));
  EXPECT_EQ(name, "camera_service");

  // A restart brings a new descriptor under the same name.
  ProcMgrMaster::UnRegServiceCallBack("camera_service");
  EXPECT_EQ(master_.GetFdFromProcName("camera_service"), -1);
  EXPECT_EQ(fake_->timesClosed[fd], 1);
  EXPECT_NE(Register("camera_service"), fd);
  EXPECT_FALSE(master_.GetProcNameFromFd(fd, name));
}

TEST_F(ProcMgrMasterTest, AnOpeningTellsItsOutcomeAndHoldsNobodyUp) {
  std::promise<void> serve;
  fake_->onOpen = [&](int) { serve.get_future().wait(); };
  std::future<bool> outcome = Begin("aside");
  EXPECT_TRUE(ProcMgrMaster::IsOpening("aside"));
  // A name has one opening at a time.
  EXPECT_FALSE(Open("aside"));
  EXPECT_FALSE(Open(""));
  serve.set_value();
  EXPECT_TRUE(outcome.get());
  EXPECT_THAT(fake_->openedNames, ElementsAre("aside"));
  EXPECT_GE(master_.GetFdFromProcName("aside"), 1);
  EXPECT_FALSE(ProcMgrMaster::IsOpening("aside"));
}

TEST_F(ProcMgrMasterTest, OpenTimeoutFollowsTheRunMode) {
  const std::pair<const char*, std::uint32_t> cases[] = {
      {"0", 180000}, {"1", 1800000}, {"11", 180000}};
  (void)Register("timeouts");
  EXPECT_EQ(fake_->opened.back().timeout, 180000U);
  for (const auto& [mode, timeout] : cases) {
    (void)setenv("VENTRIX_RUN_MODE", mode, 1);
    (void)Register("timeouts");
    EXPECT_EQ(fake_->opened.back().timeout, timeout) << mode;
  }
}

TEST_F(ProcMgrMasterTest, OpenResults) {
  struct Case {
    const char* name;
    std::deque<int> results;
    bool opens;
    std::size_t tries;
  };
  const Case cases[] = {
      {"descriptor 0", {0}, false, 1},
      {"busy once", {-11}, true, 2},
      {"busy twice", {-11, -11}, false, 2},
      {"no peer", {-110}, false, 1},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    fake_.Reset();
    fake_->openResults = test.results;
    EXPECT_EQ(Open("results"), test.opens);
    EXPECT_EQ(master_.GetFdFromProcName("results") >= 1, test.opens);
    EXPECT_THAT(fake_->opened, SizeIs(test.tries));
    EXPECT_THAT(fake_->sleeps, IsEmpty());
  }
}

TEST_F(ProcMgrMasterTest, CloseResults) {
  const std::pair<int, const char*> cases[] = {{3, ""}, {-9, "-9"}, {-32, "-32"}};
  for (const auto& [result, code] : cases) {
    SCOPED_TRACE(result);
    fake_.Reset();
    const int fd = Register("closing");
    fake_->closeResults = {result};
    ProcMgrMaster::UnRegServiceCallBack("closing");
    EXPECT_EQ(fake_->closeCalls, std::vector<int>{fd});
    EXPECT_EQ(master_.GetFdFromProcName("closing"), -1);
    EXPECT_THAT(TakeLog(),
                ElementsAre(result < 0 ? "E PROCMGR : Master UnRegServiceCallBack failed: "
                                         "NexioClosePipe failed err code: " +
                                             std::string(code)
                                       : "I PROCMGR : Master UnRegServiceCallBack success proName: "
                                         "closing fd: " +
                                             std::to_string(fd)));
  }
  // The library is asked about an unknown name all the same.
  fake_.Reset();
  ProcMgrMaster::UnRegServiceCallBack("never registered");
  EXPECT_EQ(fake_->closeCalls, std::vector<int>{-1});
}

TEST_F(ProcMgrMasterTest, OnlyFramesOfAChannelReachTheHandler) {
  const int fd = Register("sender");
  std::vector<std::pair<int, const NexioRequest*>> handled;
  handler_ = [&](int from, const NexioRequest* req) { handled.emplace_back(from, req); };
  fake_.Deliver(fd, &request_);
  fake_.Deliver(fd, nullptr);
  ProcMgrMaster::ProcMgrMasterRequstMsgHandler(0, &request_);
  EXPECT_THAT(handled, ElementsAre(std::pair(fd, &request_)));
}

// The peer's first frame arrives before the opening has returned, let alone been filed.
TEST_F(ProcMgrMasterTest, AFrameInTheInstantOfTheOpeningFindsItsSender) {
  std::atomic<int> found = 0;
  handler_ = [&](int fd, const NexioRequest*) {
    std::string name;
    found += master_.GetProcNameFromFd(fd, name) && name == "eager" ? 1 : 0;
  };
  std::thread library;
  fake_->onOpen = [&](int fd) {
    std::promise<void> begun;
    library = std::thread([&, fd] {
      begun.set_value();
      fake_.Deliver(fd, &request_);
    });
    begun.get_future().wait();
  };
  constexpr int kRounds = 300;
  for (int i = 0; i < kRounds; ++i) {
    EXPECT_TRUE(Open("eager"));
    library.join();
    ProcMgrMaster::UnRegServiceCallBack("eager");
  }
  EXPECT_EQ(found, kRounds);
}

// Neither a stranger's frame nor one of a channel that is going away holds a thread up.
TEST_F(ProcMgrMasterTest, NoWaitForADescriptorThatWillNotBeFiled) {
  const int fd = Register("going");
  fake_->closeResults = std::deque<int>(10, kNexioCallback);
  ProcMgrMaster::UnRegServiceCallBack("going");
  std::string name;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(master_.GetProcNameFromFd(4711, name));
  fake_->onOpen = [&](int) { EXPECT_FALSE(master_.GetProcNameFromFd(fd, name)); };
  (void)Register("other");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

// Whoever closes may hold what the callback wants: it doesn't wait, the channel has no sender from
// then on, and the callback closes on its way out.
TEST_F(ProcMgrMasterTest, ABusyChannelClosesWhenItsCallbackReturns) {
  const int fd = Register("busy");
  Mutex wanted;
  std::thread library;
  {
    const MutexLock lock(wanted);
    library = DeliverAside(fd, [&] { const MutexLock held(wanted); });
    ProcMgrMaster::UnRegServiceCallBack("busy");
    std::string name;
    EXPECT_FALSE(master_.GetProcNameFromFd(fd, name));
    EXPECT_EQ(fake_->timesClosed[fd], 0);
  }
  library.join();
  EXPECT_EQ(fake_->timesClosed[fd], 1);
}

// Frames, closing and reopening of one channel from several threads: each descriptor is closed
// once, whoever comes first.
TEST_F(ProcMgrMasterTest, ClosingRacesWithCallbacks) {
  std::atomic<bool> over = false;
  std::atomic<int> current = 0;
  std::thread library([&] {
    while (!over) {
      fake_.Deliver(current, &request_);
    }
  });
  std::vector<int> fds;
  for (int i = 0; i < 500; ++i) {
    EXPECT_TRUE(Open("racer"));
    fds.push_back(master_.GetFdFromProcName("racer"));
    current = fds.back();
    ProcMgrMaster::UnRegServiceCallBack("racer");
  }
  over = true;
  library.join();
  (void)Register("last");
  for (const int fd : fds) {
    EXPECT_EQ(fake_->timesClosed[fd], 1) << fd;
  }
}

// Services that have promised no channel wait for their turn, which may be long in coming. The end
// of a process isn't, and its successor's opening takes the place of what was never begun.
TEST_F(ProcMgrMasterTest, AnOpeningThatHasNotHadItsTurnEndsWithItsProcess) {
  std::promise<void> gate;
  fake_->onOpening = [open = gate.get_future().share()](const NexioOpenParam&) { open.wait(); };
  const OpenTerms patient{std::chrono::milliseconds(1), false};
  std::vector<std::future<bool>> outcomes;
  const auto open = [&](const std::string& name) { outcomes.push_back(Begin(name, patient)); };
  for (int i = 0; i < 10; ++i) {
    open("first" + std::to_string(i));
  }
  open("late");
  ProcMgrMaster::EndOpening("late");
  const bool isHeldUp = ProcMgrMaster::IsOpening("late");
  EXPECT_FALSE(isHeldUp);
  if (!isHeldUp) {
    EXPECT_FALSE(outcomes.back().get());
    open("late");
  }
  gate.set_value();
  for (std::future<bool>& outcome : outcomes) {
    EXPECT_TRUE(!outcome.valid() || outcome.get());  // One has been told above.
  }
  EXPECT_THAT(fake_->openedNames, SizeIs(11));
}

TEST_F(ProcMgrMasterTest, DetachWaitsForTheHandler) {
  const int fd = Register("late");
  std::atomic<int> left = 0;
  std::thread library = DeliverAside(fd, [&] {
    std::this_thread::yield();
    ++left;
  });
  master_.Detach();
  EXPECT_EQ(left, 1);
  library.join();
  fake_.Deliver(fd, &request_);
  EXPECT_EQ(left, 1);
}

TEST_F(ProcMgrMasterTest, SendsFramesInOrderAndStopsAtTheFirstFailure) {
  Serialization::PieceList pieces(3);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    pieces[i].size = i + 1;
  }
  EXPECT_FALSE(master_.SendRequestMsg(5, {}));
  fake_->sendResults = {0, -32};
  EXPECT_FALSE(master_.SendRequestMsg(5, pieces));
  ASSERT_THAT(fake_->sent, SizeIs(1));
  EXPECT_EQ(fake_->sent[0].fd, 5);
  EXPECT_EQ(fake_->sent[0].data, std::string(reinterpret_cast<const char*>(pieces.data()), 3984));
  EXPECT_TRUE(master_.SendRequestMsg(5, pieces));
  EXPECT_THAT(fake_->sent, SizeIs(4));
}

// The body of the one frame that was sent, behind its type.
std::string OnlyBody(RequestType type) {
  const auto sent = std::exchange(FakeNexio::Instance()->sent, {});
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
  EXPECT_TRUE(master_.ReportAppState({}, "nobody"));
  EXPECT_THAT(fake_->sent, IsEmpty());
  EXPECT_TRUE(master_.ReportAppState({{"bbb", 12, 34, 0, 0}, {"a", 13, 35, 4, 1}}, "owner"));
  EXPECT_EQ(OnlyBody(RequestType::APP_STATE_REPORT), "2#a#13#35#4#1#bbb#12#34#0#0#");
  EXPECT_THAT(TakeLog(),
              Contains(HasSubstr("appState=TERMINATED_ABNORMAL_EXIT, appName=a, pid=13")));

  EXPECT_FALSE(master_.ReportAppState({{"a", 1, 2, 0, 0}}, "nobody"));
  EXPECT_FALSE(master_.ReportAppState({{std::string(3960, 'n'), 1, 2, 0, 0}}, "owner"));
  // Short enough for its packer, too long for a window.
  EXPECT_FALSE(master_.ReportAppState({{std::string(3948, 'n'), 1, 2, 0, 0}}, "owner"));
  fake_->sendResults = {-32};
  EXPECT_FALSE(master_.ReportAppState({{"a", 1, 2, 0, 0}}, "owner"));
  EXPECT_THAT(fake_->sent, IsEmpty());
}

TEST_F(ProcMgrMasterTest, ReportsDetailStatus) {
  (void)Register("owner");
  EXPECT_TRUE(master_.ReportAppDetailStatus({}, "nobody"));
  EXPECT_TRUE(master_.ReportAppDetailStatus({{"b", 2}, {"a", 0}}, "owner"));
  EXPECT_EQ(OnlyBody(RequestType::APP_DETAIL_STATUS_REPORT),
            "\2\0\0\0\1\0\0\0a\0\0\0\0\1\0\0\0b\2\0\0\0"s);
  EXPECT_THAT(TakeLog(), Contains(HasSubstr("to owner, appName=b, status=2")));

  EXPECT_FALSE(master_.ReportAppDetailStatus({{"a", 0}}, "nobody"));
  EXPECT_FALSE(master_.ReportAppDetailStatus({{std::string(3953, 'n'), 0}}, "owner"));
  fake_->sendResults = {-9};
  EXPECT_FALSE(master_.ReportAppDetailStatus({{"a", 0}}, "owner"));
  EXPECT_THAT(fake_->sent, IsEmpty());
}

}  // namespace
}  // namespace ProcMgr
