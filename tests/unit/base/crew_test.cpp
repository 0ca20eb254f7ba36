#include "base/crew.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <vector>

#include "sandbox/process_table.h"
#include "sandbox/wait.h"
#include "tests/support/test.h"

namespace ProcMgr {
namespace {

using PmSandbox::Eventually;
using PmSandbox::Threads;

// Runs a job to its end and yields the thread that ran it.
pid_t RunOne(Crew& crew) {
  std::atomic<pid_t> ranOn = 0;
  crew.Run([&] { ranOn = gettid(); });
  EXPECT_TRUE(Eventually([&] { return ranOn != 0; }));
  return ranOn;
}

TEST(CrewTest, ThreadsStayForTheNextJobsAndEndWithoutAny) {
  constexpr std::size_t kLimit = 3;
  constexpr int kJobs = 100;
  Crew crew(kLimit);
  std::set<pid_t> threads;
  for (int i = 0; i < kJobs; ++i) {
    threads.insert(RunOne(crew));
  }
  // A thread that is still on its way back from a job isn't there for the next.
  EXPECT_LE(threads.size(), kLimit);
  EXPECT_TRUE(Eventually([&] {
    const std::vector<pid_t> now = Threads(getpid());
    return std::none_of(now.begin(), now.end(), [&](pid_t id) { return threads.contains(id); });
  }));
  EXPECT_EQ(threads.count(RunOne(crew)), 0U);
}

}  // namespace
}  // namespace ProcMgr
