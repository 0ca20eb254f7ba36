// What strangers get of a server, and what they can't take from others.
#include "platform/nexio/admission.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <list>
#include <optional>
#include <thread>
#include <vector>

#include "tests/unit/platform/nexio_world.h"

namespace PmTest {
namespace {

using namespace std::chrono_literals;
using ProcMgr::Nexio::Admission;
using ProcMgr::Nexio::FloodGuard;

constexpr uid_t kStranger = 65534;

// Runs `body` on a thread that is the stranger; the process stays what it is.
template <typename Body>
void AsStranger(const Body& body) {
  std::thread([&body] {
    ASSERT_EQ(syscall(SYS_setresuid, -1, kStranger, -1), 0);
    body();
  }).join();
}

TEST(NexioAdmission, UserHasSixteenPlacesAndAPaceAndRootHasNeither) {
  Admission admission(1000);
  const ProcMgr::SteadyTime start = ProcMgr::SteadyNow();
  for (int i = 0; i < Admission::kPlacesOfUser; ++i) {
    ASSERT_EQ(admission.Enter(kStranger, start), nullptr) << i;
  }
  EXPECT_STREQ(admission.Enter(kStranger, start), "its user has enough connections");
  for (int i = 0; i < 2 * Admission::kQuickOnes; ++i) {
    ASSERT_EQ(admission.Enter(0, start), nullptr) << i;
  }
  EXPECT_EQ(admission.Enter(kStranger - 1, start), nullptr);

  // One place, used again and again.
  int quick = Admission::kPlacesOfUser;
  admission.Leave(kStranger);
  while (admission.Enter(kStranger, start) == nullptr) {
    admission.Leave(kStranger);
    ASSERT_LE(++quick, Admission::kQuickOnes);
  }
  EXPECT_EQ(quick, Admission::kQuickOnes);
  EXPECT_STREQ(admission.Enter(kStranger, start), "its user connects too often");
  EXPECT_EQ(admission.Enter(kStranger, start + Admission::kPaceOfUser), nullptr);
}

TEST(NexioAdmission, FullServerTakesNobody) {
  Admission admission(1);
  const ProcMgr::SteadyTime now = ProcMgr::SteadyNow();
  EXPECT_EQ(admission.Enter(0, now), nullptr);
  EXPECT_STREQ(admission.Enter(0, now), "the server is full");
  admission.Leave(0);
  EXPECT_EQ(admission.Enter(kStranger, now), nullptr);
}

TEST(NexioAdmission, FloodPausesAndHasOneLineUntilItIsOver) {
  FloodGuard guard;
  ProcMgr::SteadyTime now = ProcMgr::SteadyNow();
  for (int i = 0; i < FloodGuard::kMost; ++i) {
    ASSERT_EQ(guard.Count(now), FloodGuard::Line::kRefusal);
    ASSERT_LE(guard.PauseEnd(), now);
  }
  EXPECT_EQ(guard.Count(now), FloodGuard::Line::kFlood);
  EXPECT_EQ(guard.PauseEnd(), now + FloodGuard::kWindow);
  for (int i = 0; i < 1000; ++i) {
    now += FloodGuard::kWindow / 10;
    ASSERT_EQ(guard.Count(now), FloodGuard::Line::kNone);
  }
  EXPECT_LE(guard.PauseEnd(), now);
  EXPECT_EQ(guard.Count(now + FloodGuard::kQuiet), FloodGuard::Line::kRefusal);
}

// A stranger who connects and goes as fast as it can, for a second: the others have their turn, and
// the log has few lines of it.
TEST(NexioAdmission, StrangersFloodLeavesOthersTheirTurn) {
  const EchoServer server("flooded");
  const std::size_t lines = Log().Lines().size();
  std::atomic<bool> stop = false;
  std::atomic<int> tries = 0;
  std::thread flooder([&] {
    AsStranger([&] {
      while (!stop) {
        tries += ConnectRaw(Box(), "flooded").has_value() ? 1 : 0;
      }
    });
  });
  EXPECT_TRUE(Eventually([&tries] { return tries >= 500; }));
  EXPECT_EQ(Ask(Channel("flooded").fd, "served"), "served");
  stop = true;
  flooder.join();
  EXPECT_TRUE(Log().WaitFor("NEXIO : server flooded is flooded", lines).has_value());
  EXPECT_LE(Log().Lines().size() - lines, static_cast<std::size_t>(FloodGuard::kMost) + 2);
}

TEST(NexioAdmission, ClientsLeaveDescriptorsInReserve) {
  const EchoServer server("reserve");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit low{256, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  // With their own ends, which are of this process too, more than the server may take and fewer
  // than there are.
  std::vector<RawPeer> silent;
  for (int i = 0; i < 120; ++i) {
    if (auto peer = ConnectRaw(Box(), "reserve")) {
      silent.push_back(std::move(*peer));
    }
  }
  EXPECT_TRUE(Log().WaitFor("the descriptors that are left are kept for others").has_value());
  const RawServer service(Box(), "served-still", getgid());
  const Channel opened("served-still");
  silent.clear();
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

}  // namespace
}  // namespace PmTest
