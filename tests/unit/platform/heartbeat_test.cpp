#include "platform/heartbeat/heartbeat.h"

#include <sys/syscall.h>

#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "platform/heartbeat/heartbeat_table.h"
#include "platform/heartbeat/heartbeat_watcher.h"
#include "sandbox/wait.h"
#include "tests/support/test.h"
#include "tests/support/threads.h"

namespace ProcMgr::HeartBeat {
namespace {

using namespace std::chrono_literals;

bool Ignore(const char*, std::size_t, pid_t, std::uint32_t) {
  return true;
}

// A table whose clock the test moves; what it tells is kept as "name pid status".
class TableTest : public testing::Test {
 protected:
  void Register(const char* name, gid_t gid = 100) { table_.Register(name, gid, &Ignore, now_); }
  BeatResult Beat(const char* name, pid_t pid = 7, gid_t gid = 100) {
    return table_.Beat(name, gid, pid, now_, news_);
  }
  // Lets time pass as the watcher does: a check whenever the table asks for one, and at the end.
  std::vector<std::string> Pass(std::chrono::milliseconds time) {
    const SteadyTime end = now_ + time;
    while (table_.NextCheck() && *table_.NextCheck() <= end) {
      now_ = std::max(now_, *table_.NextCheck());
      table_.Expire(now_, news_);
    }
    now_ = end;
    return Told();
  }
  std::vector<std::string> Told() {
    std::vector<std::string> told;
    for (const News& each : news_) {
      told.push_back(each.name + " " + std::to_string(each.pid) +
                     (each.status == kHeartBeatLost ? " lost" : " recovered"));
    }
    news_.clear();
    return told;
  }

  SteadyTime now_{1h};
  Table table_{Limits{}};
  std::vector<News> news_;
};

TEST_F(TableTest, LossAndRecoveryAreToldOnceEach) {
  Register("a");
  EXPECT_THAT(Pass(4999ms), IsEmpty());
  EXPECT_THAT(Pass(1ms), ElementsAre("a 0 lost"));
  EXPECT_THAT(Pass(1h), IsEmpty());
  EXPECT_EQ(Beat("a", 8), BeatResult::kCounted);
  EXPECT_THAT(Told(), ElementsAre("a 8 recovered"));
  EXPECT_THAT(Pass(1999ms), IsEmpty());
  Beat("a", 9);
  EXPECT_THAT(Pass(1999ms), IsEmpty());
  EXPECT_THAT(Pass(1ms), ElementsAre("a 9 lost"));
}

TEST_F(TableTest, BeatsOfStrangersCountForNothing) {
  Register("a");
  Beat("a", 7);
  Pass(1500ms);
  EXPECT_EQ(Beat("a", 6, 101), BeatResult::kStrangerAnew);
  EXPECT_EQ(Beat("a", 6, 101), BeatResult::kStranger);
  EXPECT_EQ(Beat("b", 6), BeatResult::kUnknown);
  EXPECT_THAT(Pass(500ms), ElementsAre("a 7 lost"));
  Beat("a", 6, 101);
  EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(TableTest, LastBeatIsTheOneThatCountedLast) {
  Register("a");
  EXPECT_EQ(table_.LastBeat("a"), std::nullopt);
  Beat("a");
  const SteadyTime beat = now_;
  Pass(1h);
  Beat("a", 6, 101);
  EXPECT_EQ(table_.LastBeat("a"), beat);
  EXPECT_EQ(table_.LastBeat("b"), std::nullopt);
  Register("a");
  EXPECT_EQ(table_.LastBeat("a"), std::nullopt);
}

TEST_F(TableTest, RegistrationBeginsAnewAndEndsWhatWasToBeTold) {
  Register("a");
  Beat("a", 7);
  table_.Expire(now_ += 2000ms, news_);
  ASSERT_EQ(news_.size(), 1U);
  const News old = news_[0];
  EXPECT_TRUE(table_.IsCurrent(old));
  Register("a", 200);
  EXPECT_FALSE(table_.IsCurrent(old));
  news_.clear();
  // The new group counts, the loss is forgotten, and so is the pid.
  EXPECT_EQ(Beat("a", 7, 100), BeatResult::kStrangerAnew);
  EXPECT_THAT(Pass(4999ms), IsEmpty());
  EXPECT_THAT(Pass(1ms), ElementsAre("a 0 lost"));
  table_.Unregister("a");
  table_.Unregister("never was");
  EXPECT_EQ(Beat("a", 7, 200), BeatResult::kUnknown);
  EXPECT_THAT(Pass(1h), IsEmpty());
  EXPECT_FALSE(table_.NextCheck());
}

TEST_F(TableTest, TimeOfDeafnessIsForgiven) {
  Register("a");
  Register("b");
  Beat("a", 7);
  now_ += 3000ms;
  // It came while nobody listened, and is heard now.
  Beat("b", 8);
  table_.Excuse(1500ms, now_);
  EXPECT_THAT(Pass(499ms), IsEmpty());
  EXPECT_THAT(Pass(1ms), ElementsAre("a 7 lost"));
  EXPECT_THAT(Pass(1500ms), ElementsAre("b 8 lost"));
}

// Once until it beats again, for half of its time.
TEST_F(TableTest, LateLookSpares) {
  Register("a");
  Beat("a", 7);
  now_ += 5000ms;
  table_.Spare(now_);
  EXPECT_THAT(Pass(999ms), IsEmpty());
  table_.Spare(now_ += 2000ms);
  EXPECT_THAT(Pass(0ms), ElementsAre("a 7 lost"));
  Beat("a", 7);
  table_.Spare(now_ += 2000ms);
  EXPECT_THAT(Pass(0ms), ElementsAre("a 7 recovered"));
  EXPECT_THAT(Pass(1000ms), ElementsAre("a 7 lost"));
}

// What the notifications of the watcher under test do. They are plain functions, so it is global.
struct Notified {
  PmTest::LineRecorder told;
  std::optional<PmTest::Gate> gate;
};
std::unique_ptr<Notified> notified;

bool Notify(const char* name, std::size_t length, pid_t pid, std::uint32_t status) {
  if (notified->gate) {
    notified->gate->Pass();
  }
  notified->told.Add(std::string(name, length) + (name[length] == '\0' ? "" : " unended") +
                     (pid == getpid() ? " mine" : " " + std::to_string(pid)) +
                     (status == kHeartBeatLost ? " lost" : " recovered"));
  return true;
}

class WatcherTest : public testing::Test {
 protected:
  WatcherTest() { notified = std::make_unique<Notified>(); }

  void Start(Limits limits) {
    watcher_.emplace(path_, limits);
    ASSERT_EQ(watcher_->Start(), 0);
  }
  // Yields 0 or an errno.
  [[nodiscard]] int TrySend(const std::string& bytes) const {
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const ProcMgr::UnixAddress address(path_);
    const bool sent = sendto(fd.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT, address.Get(),
                             address.Size()) == static_cast<ssize_t>(bytes.size());
    return sent ? 0 : errno;
  }
  void Send(const std::string& bytes) const {
    ASSERT_TRUE(PmSandbox::Eventually([&] { return TrySend(bytes) == 0; }));
  }
  // The same by a thread that is user 65534 in group `gid` and in no other.
  [[nodiscard]] int TrySendAs(gid_t gid, const std::string& bytes) const {
    int result = -1;
    std::thread([&] {
      // By system call, so that the other threads stay who they are.
      if (syscall(SYS_setgroups, 0, nullptr) == 0 && syscall(SYS_setresgid, gid, gid, gid) == 0 &&
          syscall(SYS_setresuid, 65534, 65534, 65534) == 0) {
        result = TrySend(bytes);
      }
    }).join();
    return result;
  }

  PmTest::TempFolder folder_;
  const std::string path_ = folder_.Path("beat.sock");
  std::optional<Watcher> watcher_;
};

TEST_F(WatcherTest, LossComesByItselfAndRecoveryByABeat) {
  Start({20ms, 20ms});
  watcher_->Register("service", getgid(), &Notify);
  EXPECT_THAT(notified->told.Await(1), ElementsAre("service 0 lost"));
  Send("service");
  EXPECT_THAT(notified->told.Await(3),
              ElementsAre("service 0 lost", "service mine recovered", "service mine lost"));
}

TEST_F(WatcherTest, BeatsThatAreNoneDoNotDisturb) {
  Start({1h, 20ms});
  const std::string longest(64, 'n');
  watcher_->Register(longest, getgid(), &Notify);
  EXPECT_EQ(notified->told.Await(1).size(), 1U);
  for (const std::string& bytes : {std::string(), longest + "n", std::string("unknown"),
                                   std::string(3000, 'x'), longest.substr(1)}) {
    Send(bytes);
  }
  // The socket keeps the order, so what follows the true beat comes after all of them.
  Send(longest);
  EXPECT_THAT(notified->told.Await(2),
              ElementsAre(longest + " 0 lost", longest + " mine recovered"));
}

// A flood of strangers would leave no room in the queue, which is the kernel's and short.
TEST_F(WatcherTest, OnlyTheGroupsThatRegisteredGetIntoTheQueue) {
  ASSERT_EQ(chmod(folder_.Path(".").c_str(), 0755), 0);
  Start({1h, 20ms});
  EXPECT_EQ(TrySendAs(4711, "service"), EACCES);
  watcher_->Register("service", 4711, &Notify);
  watcher_->Register("other", 4712, &Notify);
  watcher_->Register("again", 4711, &Notify);
  EXPECT_EQ(notified->told.Await(3).size(), 3U);
  EXPECT_EQ(TrySendAs(4713, "service"), EACCES);
  EXPECT_EQ(TrySendAs(4712, "other"), 0);
  EXPECT_EQ(TrySendAs(4711, "service"), 0);
  EXPECT_EQ(notified->told.Await(5).size(), 5U);
}

// The manager calls under the lock that its notification waits for.
TEST_F(WatcherTest, NeitherCallWaitsForANotification) {
  notified->gate.emplace();
  Start({1h, 1ms});
  watcher_->Register("held", getgid(), &Notify);
  EXPECT_TRUE(notified->gate->AwaitArrivals(1));
  watcher_->Unregister("held");
  watcher_->Register("held", getgid(), &Notify);
  watcher_->Unregister("held");
  notified->gate->Open();
  EXPECT_THAT(notified->told.Await(1), ElementsAre("held 0 lost"));
  // The thread ends only after the notification, and tells nothing after it.
  watcher_.reset();
  EXPECT_EQ(notified->told.Await(1).size(), 1U);
}

TEST_F(WatcherTest, SocketFileIsReplacedOnlyIfNobodyServesIt) {
  Start({1h, 1h});
  Watcher second(path_, {1h, 20ms});
  EXPECT_EQ(second.Start(), EADDRINUSE);
  // The file stays, as after a process that was killed.
  watcher_.reset();
  Watcher third(path_, {1h, 20ms});
  EXPECT_EQ(third.Start(), 0);
  third.Register("anew", getgid(), &Notify);
  EXPECT_THAT(notified->told.Await(1), ElementsAre("anew 0 lost"));
  Send("anew");
  EXPECT_EQ(notified->told.Await(2).size(), 2U);
}

TEST(HeartBeat, RefusesWhatIsNoRegistration) {
  EXPECT_EQ(RegisterCheckHeartBeat(nullptr, 1, 0, &Ignore), EINVAL);
  EXPECT_EQ(RegisterCheckHeartBeat("x", 0, 0, &Ignore), EINVAL);
  EXPECT_EQ(RegisterCheckHeartBeat(std::string(65, 'x').c_str(), 65, 0, &Ignore), EINVAL);
  EXPECT_EQ(RegisterCheckHeartBeat("x", 1, 0, nullptr), EINVAL);
  // No watcher yet: nothing to do, nothing to fail.
  UnregisterCheckHeartBeat("x", 1);
  DisableAllCheckHeartBeat();
}

}  // namespace
}  // namespace ProcMgr::HeartBeat
