#include "sandbox/sandbox.h"

#include <poll.h>
#include <sys/prctl.h>

#include "base/small_file.h"
#include "sandbox/process.h"
#include "tests/support/children.h"
#include "tests/support/service_report.h"
#include "tests/support/test.h"

namespace PmSandbox {
namespace {

// Holds on to a cgroup, so that one can see whether it has been removed, wherever it is mounted.
class OpenGroup {
 public:
  explicit OpenGroup(const std::string& path)
      : fd_(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
  [[nodiscard]] bool Exists() const { return faccessat(fd_.Get(), "tasks", F_OK, 0) == 0; }

 private:
  ProcMgr::UniqueFd fd_;
};

// Yields the pid of an orphan that ignores SIGTERM, left by a shell that has gone.
pid_t LeaveOrphan(const Sandbox& sandbox) {
  constexpr const char* kReport = "/run/sandbox/report";
  sandbox.InstallProgram(ProgramPath("test-service"), "/opt/test/test-service");
  Process shell(
      sandbox, "/bin/sh",
      {"-c", std::string("/opt/test/test-service --ignore-term --report ") + kReport + " &"}, {});
  (void)shell.WaitExit();
  return PmTest::AwaitReport(sandbox, kReport).Pid();
}

// What the host has at a path, which may be a configuration of its own.
std::string OnHost(const char* path) {
  std::string text = "none";
  (void)ProcMgr::ReadSmallFile(path, ProcMgr::kConfigFileLimit, text);
  return text;
}

TEST(Sandbox, TwoHoldTheirOwnFilesAndTheHostKeepsItsOwn) {
  const Sandbox first;
  const Sandbox second;
  for (const char* path : {"/etc/zur/base-plat/process-manager/procmgr_cfg.yaml",
                           "/etc/sharepool/pools.yaml", "/run/here", "/opt/here", "/dev/here"}) {
    SCOPED_TRACE(path);
    const std::string before = OnHost(path);
    first.WriteFile(path, "first");
    second.WriteFile(path, "second");
    EXPECT_EQ(first.ReadFile(path), "first");
    EXPECT_EQ(second.ReadFile(path), "second");
    EXPECT_EQ(OnHost(path), before);
  }
}

TEST(Sandbox, EndTakesAlongItsGroupsAndWhatItsProgramsHaveLeft) {
  auto sandbox = std::make_unique<Sandbox>();
  const pid_t orphan = LeaveOrphan(*sandbox);
  EXPECT_EQ(sandbox->Processes(), std::vector<pid_t>{orphan});
  const OpenGroup group(sandbox->Outside("/sys/fs/cgroup/cpu"));
  EXPECT_TRUE(group.Exists());
  sandbox.reset();
  EXPECT_EQ(ReadStat(orphan).pid, 0);
  EXPECT_FALSE(group.Exists());
}

// A test that is killed can't clean up, so the next sandbox does it.
TEST(Sandbox, NextOneRemovesWhatAKilledOwnerLeft) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Sandbox abandoned;
    const pid_t orphan = LeaveOrphan(abandoned);
    (void)!write(ends[1], &orphan, sizeof(orphan));
    for (;;) {
      pause();
    }
  }
  close(ends[1]);
  pid_t left = 0;
  pollfd ready{ends[0], POLLIN, 0};
  ASSERT_EQ(poll(&ready, 1, static_cast<int>(kPatience.count())), 1);
  ASSERT_EQ(read(ends[0], &left, sizeof(left)), ssize_t{sizeof(left)});
  close(ends[0]);
  // As long as the owner lives nobody may touch what is its own.
  const OpenGroup group("/proc/" + std::to_string(left) + "/root/sys/fs/cgroup/cpu");
  EXPECT_NE(ReadStat(left).pid, 0);
  EXPECT_TRUE(group.Exists());
  ASSERT_TRUE(Kill(owner));
  EXPECT_EQ(PmTest::Reap(owner), SIGKILL);
  const Sandbox next;
  // Whoever adopted the orphan may take a moment to reap it.
  EXPECT_TRUE(Eventually([&] {
    const ProcessStat stat = ReadStat(left);
    return stat.pid == 0 || stat.state == 'Z';
  }));
  EXPECT_FALSE(group.Exists());
}

}  // namespace
}  // namespace PmSandbox
