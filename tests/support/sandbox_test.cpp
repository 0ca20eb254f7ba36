#include "tests/support/sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "core/small_file.h"
#include "core/user_lookup.h"
#include "tests/support/process.h"
#include "tests/support/service_report.h"

namespace PmTest {
namespace {

constexpr const char* kService = "/opt/test/test-service";

// Holds on to a cgroup, so that one can see whether it has been removed, wherever it is mounted.
class OpenGroup {
 public:
  explicit OpenGroup(const std::string& path)
      : fd_(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
  [[nodiscard]] bool Exists() const { return faccessat(fd_.Get(), "tasks", F_OK, 0) == 0; }

 private:
  ProcMgr::UniqueFd fd_;
};

void InstallTestService(const Sandbox& sandbox) {
  sandbox.InstallProgram(ProgramPath("test-service"), kService);
}

TEST(Sandbox, TwoHoldTheirOwnFilesAndTheHostHoldsNone) {
  const Sandbox first;
  const Sandbox second;
  for (const char* path : {"/etc/zur/base-plat/process-manager/procmgr_cfg.yaml",
                           "/etc/sharepool/pools.yaml", "/run/here", "/opt/here", "/dev/here"}) {
    SCOPED_TRACE(path);
    first.WriteFile(path, "first");
    second.WriteFile(path, "second");
    EXPECT_EQ(first.ReadFile(path), "first");
    EXPECT_EQ(second.ReadFile(path), "second");
    EXPECT_FALSE(std::filesystem::exists(path));
  }
}

TEST(Sandbox, InsideTheCallingThreadSeesItAndComesBack) {
  const std::string hostLine = [] {
    std::string text;
    EXPECT_EQ(ProcMgr::ReadSmallFile("/proc/cmdline", 65536, text), 0);
    return text;
  }();
  const Sandbox sandbox;
  sandbox.SetKernelCommandLine("quiet procmgr=em\n");
  sandbox.AddUser("sandboxed", 54321, 54322, "/home/sandboxed");
  std::string line;
  {
    const Sandbox::Inside inside(sandbox);
    EXPECT_EQ(ProcMgr::ReadSmallFile("/proc/cmdline", 65536, line), 0);
    EXPECT_EQ(line, "quiet procmgr=em\n");
    EXPECT_EQ(ProcMgr::FindUserId("sandboxed"), 54321U);
    EXPECT_EQ(ProcMgr::FindGroupId("sandboxed"), 54322U);
  }
  EXPECT_EQ(ProcMgr::ReadSmallFile("/proc/cmdline", 65536, line), 0);
  EXPECT_EQ(line, hostLine);
  EXPECT_EQ(ProcMgr::FindUserId("sandboxed"), std::nullopt);
}

TEST(Sandbox, GroupsStandAtTheFixedRootsAndVanishAtTheEnd) {
  auto sandbox = std::make_unique<Sandbox>();
  ASSERT_EQ(sandbox->CgroupProblem(), "");
  sandbox->MakePlatformGroups("0", "0");
  {
    const Sandbox::Inside inside(*sandbox);
    for (const char* tasks :
         {"/sys/fs/cgroup/cpu/OTHER/tasks", "/sys/fs/cgroup/memory/OTHER/tasks",
          "/sys/fs/cgroup/cpuset/CtrlCPU/tasks", "/sys/fs/cgroup/cpuset/AICPU/tasks"}) {
      EXPECT_EQ(access(tasks, W_OK), 0) << tasks;
    }
  }
  InstallTestService(*sandbox);
  Process process(*sandbox, kService, {"--report", "/run/sandbox/report"}, {});
  const ServiceReport report = AwaitReport(*sandbox, "/run/sandbox/report");
  EXPECT_NE(report.Get("cgroup.cpu"), "/");
  const OpenGroup group(sandbox->Outside("/sys/fs/cgroup/cpu"));
  EXPECT_TRUE(group.Exists());
  sandbox.reset();
  EXPECT_FALSE(group.Exists());
}

TEST(Sandbox, ProgramsStartWithNothingButWhatTheyAreGiven) {
  const Sandbox sandbox;
  InstallTestService(sandbox);
  // Each would reach the program if the support handed on what it has itself.
  const int leaked = open("/dev/null", O_RDONLY);
  ASSERT_GE(leaked, 0);
  Process::Options options;
  options.environment["GIVEN"] = "yes";
  Process process(sandbox, kService, {"--report", "/run/sandbox/report"}, options);
  const ServiceReport report = AwaitReport(sandbox, "/run/sandbox/report");
  close(leaked);
  EXPECT_EQ(report.Get("fds"), "0,1,2");
  EXPECT_EQ(report.Get("cwd"), "/");
  EXPECT_EQ(report.Get("env.GIVEN"), "yes");
  EXPECT_FALSE(report.Has("env.HOME"));
  EXPECT_EQ(report.Get("status.SigBlk"), "0000000000000000");
  EXPECT_EQ(report.Get("status.SigIgn"), "0000000000000000");
  EXPECT_EQ(report.Pid(), process.Pid());
}

TEST(Sandbox, EndKillsWhatItsProgramsHaveLeft) {
  auto sandbox = std::make_unique<Sandbox>();
  InstallTestService(*sandbox);
  // The shell goes at once and leaves an orphan that ignores SIGTERM.
  Process shell(*sandbox, "/bin/sh",
                {"-c", std::string(kService) + " --ignore-term --report /run/sandbox/report &"},
                {});
  EXPECT_EQ(shell.WaitExit(), 0);
  const pid_t orphan = AwaitReport(*sandbox, "/run/sandbox/report").Pid();
  EXPECT_EQ(sandbox->Processes(), std::vector<pid_t>{orphan});
  sandbox.reset();
  EXPECT_EQ(ReadStat(orphan).pid, 0);
}

// A test that is killed can't clean up, so the next sandbox does it.
TEST(Sandbox, NextOneRemovesWhatAKilledOwnerLeft) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    const Sandbox abandoned;
    InstallTestService(abandoned);
    Process shell(abandoned, "/bin/sh",
                  {"-c", std::string(kService) + " --report /run/sandbox/report &"}, {});
    const ServiceReport report = AwaitReport(abandoned, "/run/sandbox/report");
    const std::string line = report.Get("pid");
    (void)!write(ends[1], line.data(), line.size());
    for (;;) {
      pause();
    }
  }
  close(ends[1]);
  std::array<char, 512> buffer{};
  ASSERT_GT(read(ends[0], buffer.data(), buffer.size() - 1), 0);
  close(ends[0]);
  const pid_t left = std::stoi(buffer.data());
  // As long as the owner lives nobody may touch what is its own.
  const OpenGroup group("/proc/" + std::to_string(left) + "/root/sys/fs/cgroup/cpu");
  EXPECT_NE(ReadStat(left).pid, 0);
  EXPECT_TRUE(group.Exists());
  ASSERT_EQ(kill(owner, SIGKILL), 0);
  ASSERT_EQ(waitpid(owner, nullptr, 0), owner);
  const Sandbox next;
  // Whoever adopted the orphan may take a moment to reap it.
  EXPECT_TRUE(Eventually([&] {
    const ProcessStat stat = ReadStat(left);
    return stat.pid == 0 || stat.state == 'Z';
  }));
  EXPECT_FALSE(group.Exists());
}

}  // namespace
}  // namespace PmTest
