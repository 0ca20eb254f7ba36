// What the manager does for one while it has to do with another: each burden, and none for
// comparison.
#include <limits>

#include "bench/burdened_daemon.h"
#include "bench/figures.h"
#include "tests/support/scenario_test.h"

namespace PmTest {
namespace {

// Whatever else is under way, an exit is filed, a replacement comes up, a query is answered and the
// boot goes on as if it weren't; and when it is over, nothing of it is left.
class Burdened : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Burdened, NobodyElseNotices) {
  using Look = PmBench::BurdenedDaemon::Look;
  constexpr int kLooks = 7;
  // What a look takes goes by several threads, for each of which a busy machine has no core for
  // some milliseconds; whoever waited for a peer would wait 100 at least, in the boot for seconds.
  const double briefMs = 50 * PatienceFactor();
  const double passMs = 33 + 2 * briefMs;
  const double bootMs = 10 * briefMs;
  const PmBench::BurdenKind& burden = PmBench::AllBurdens()[GetParam()];
  PmBench::BurdenedDaemon daemon(burden);
  PmBench::BurdenedDaemon::Holding holding = daemon.Holds();
  ++holding.descriptors;  // One that waits for sockets is kept for the next who has to.
#ifdef PM_SANITIZED       // It keeps what is freed, to find who uses it still.
  holding.memoryKib = std::numeric_limits<long>::max();
#else
  holding.memoryKib += burden.keptKib;
#endif
  daemon.Renew();
  EXPECT_LT(daemon.FinishBoot(), bootMs);
  std::vector<Look> looks;
  for (int i = 0; i < kLooks; ++i) {
    daemon.Renew();
    looks.push_back(daemon.LookAround());
  }
  EXPECT_LT(PmBench::MedianOf(looks, &Look::filed), briefMs);
  EXPECT_LT(PmBench::MedianOf(looks, &Look::answered), briefMs);
  EXPECT_LT(PmBench::MedianOf(looks, &Look::back), passMs);
  daemon.End();
  EXPECT_TRUE(daemon.AwaitHolding(holding))
      << ::testing::PrintToString(daemon.Process().Descriptors()) << daemon.Process().ThreadCount()
      << " threads, " << daemon.Holds().memoryKib << " KiB; at most " << holding.descriptors << ", "
      << holding.threads << ", " << holding.memoryKib;
  daemon.Process().KillAll();
  EXPECT_EQ(daemon.Process().SanitizerReport(), "");
  if (HasFailure()) {
    ADD_FAILURE() << daemon.Log();
  }
}

INSTANTIATE_TEST_SUITE_P(While, Burdened,
                         ::testing::Range(std::size_t{0}, PmBench::AllBurdens().size()),
                         [](const auto& tested) {
                           std::string name = PmBench::AllBurdens()[tested.param].name;
                           std::erase_if(name, [](char c) { return isalnum(c) == 0 && c != ' '; });
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

}  // namespace
}  // namespace PmTest
