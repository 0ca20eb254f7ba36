// What a child could not do: the text that it leaves in the pipe and the code with which it ends.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cstddef>
#include <type_traits>

#include "core/host_context.h"
#include "tests/support/forbidden_calls.h"
#include "tests/unit/app/fakes.h"
#include "tests/unit/app/launch_fixture.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using LaunchFailure = LaunchTest;

constexpr int kStatus1 = 1 << 8;

// A system call that is to fail with `error`, if its argument number `argument` is `value`.
struct Failing {
  long call = 0;
  int error = 0;
  int argument = -1;  // None: whatever they are.
  std::uint32_t value = 0;
};

// For the calling thread and all children that it makes from now on.
void Forbid(const std::vector<Failing>& calls) {
  const auto load = [](std::size_t offset) -> sock_filter {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
  };
  std::vector<sock_filter> filter;
  for (const Failing& failing : calls) {
    const bool isAny = failing.argument < 0;
    filter.push_back(load(offsetof(seccomp_data, nr)));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(failing.call),
                              0, static_cast<std::uint8_t>(isAny ? 1 : 3)));
    if (!isAny) {
      filter.push_back(load(offsetof(seccomp_data, args) +
                            sizeof(std::uint64_t) * static_cast<std::size_t>(failing.argument)));
      filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, failing.value, 0, 1));
    }
    filter.push_back(
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(failing.error)));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

// A filter can't be taken back, so it goes with a thread of its own.
template <typename Work>
void WithForbidden(const std::vector<Failing>& calls, Work work) {
  std::thread thread([&] {
    Forbid(calls);
    work();
  });
  thread.join();
}

constexpr int kGoesOn = -1;

TEST_F(LaunchFailure, EachStepInTurn) {
  struct {
    const char* step;
    std::vector<Failing> calls;
    int status;  // kGoesOn: the application runs.
    std::string text;
    std::string ownText = {};  // A message of its own behind it.
    std::string ownTextOfGeneral = {};
  } const rows[] = {
      // Kernels without the call, and those that don't know what it is asked for.
      {"clone3", {{SYS_clone3, ENOSYS}}, kGoesOn, kNoCores},
      {"its flag", {{SYS_clone3, EINVAL}}, kGoesOn, kNoCores},
      {"look at the limit",
       {{SYS_prlimit64, EPERM, 1, RLIMIT_RTPRIO}},
       kGoesOn,
       "getrlimit failed,errno=1;" + kNoCores},
      // The look comes with the fourth argument alone, the change with the third alone.
      {"limit", {{SYS_prlimit64, EPERM, 3, 0}}, kGoesOn, "prlimit failed,errno=1;" + kNoCores},
      {"niceness", {{SYS_setpriority, EACCES}}, kGoesOn, kNoCores},
      {"groups", {{SYS_setgroups, EPERM}}, kStatus1, ""},
      {"group", {{SYS_setgid, EPERM}}, kStatus1, "SetAppGid=3001 failed error=1;"},
      {"user", {{SYS_setuid, EAGAIN}}, kStatus1, "SetAppUid=2001,failed error=11;"},
      {"policy",
       {{SYS_sched_setscheduler, EPERM}},
       kGoesOn,
       kNoCores,
       {},
       "sched_setscheduler failed errno=1;"},
      // The text of the steps is on its way before the exec is tried.
      {"exec",
       {{SYS_execve, ENOEXEC}},
       kStatus1,
       kNoCores,
       "exec failed, errno=8;",
       "execv failed, execPath_=/opt/test/service, errno=8;"},
      {"exec from a bad medium", {{SYS_execve, EIO}}, 125 << 8, kNoCores},
  };
  ApplicationManifest::Fields fields = Fields();
  fields.nice = 3;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.step);
    // Where it may not, root says so itself.
    fields.isSetRtPrio = row.calls.front().call == SYS_prlimit64;
    const auto check = [&]<typename Record>(Record& app) {
      std::string text = row.text;
      std::string own = row.ownText;
      if constexpr (std::is_same_v<Record, GeneralAppInfo>) {
        own = row.ownTextOfGeneral;
        if (row.calls.front().call == SYS_sched_setscheduler) {
          app.schedPolicy_ = 3;
          text += std::exchange(own, {});  // One of the steps, and told with them.
        }
      }
      if (row.status == kGoesOn) {
        (void)ReportOf(app);
      } else {
        EXPECT_EQ(StatusOf(app), row.status);
      }
      EXPECT_EQ(PipeText(), Message(app, text) + (own.empty() ? "" : Message(app, own)));
    };
    WithForbidden(row.calls, [&] { ForBothKinds(fields, check); });
  }
}

TEST_F(LaunchFailure, IdentityThatCanNotBeTaken) {
  constexpr uid_t kNobody = UINT32_MAX;  // No process can have it.
  sandbox_->AddUser("unusable", kNobody, kAppUserGid, "/");
  AddCrowdedUser(2129, 128);
  struct {
    uid_t uid;
    gid_t gid;
    uid_t fileUid;  // The program's owner may start it, whether the user database knows it or not.
    std::string text;
  } const rows[] = {
      {9999, kAppGid, 9999, "getpwuid is null;"},
      {2129, kAppGid, 2129, ""},
      {kAppUid, UINT32_MAX, 0, "SetAppGid=4294967295 failed error=22;"},
      {kNobody, kAppGid, 0, "SetAppUid=4294967295,failed error=22;"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    ASSERT_EQ(chown(kService, row.fileUid, kAppUserGid), 0);
    ApplicationManifest::Fields fields = Fields();
    fields.uid = row.uid;
    fields.gid = row.gid;
    // What earlier steps had to tell goes with the reason.
    fields.cpuset = "NOPE";
    const std::string noSet =
        "add cgroup failed, cpuset cgroup path=/sys/fs/cgroup/cpuset/NOPE/tasks is not existed;";
    ForBothKinds(fields, [&](auto& app) {
      EXPECT_EQ(StatusOf(app), kStatus1);
      EXPECT_EQ(PipeText(), Message(app, noSet + row.text));
    });
  }
}

// Steps that fail and let the start go on, in the order in which they are told.
TEST_F(LaunchFailure, LesserFailuresAreToldAndTheProcessRuns) {
  ApplicationManifest::Fields fields = Fields();
  fields.resGroupName = "NOPE";
  fields.envArgv = {{"A", "1"}, {"B=", "2"}, {"C", "3"}};
  Platform().accessError = EPERM;
  const std::string texts =
      "add cgroup failed, cpu cgroup path=/sys/fs/cgroup/cpu/NOPE/tasks is not existed;"
      "setenv failed, errno=22;IAMInitProc failed, errno=1;" +
      kNoCores;
  ForBothKinds(fields, [&](auto& app) {
    const PmTest::ServiceReport report = ReportOf(app);
    EXPECT_EQ(PipeText(), Message(app, texts));
    EXPECT_EQ(report.Get("env.A"), "1");
    EXPECT_FALSE(report.Has("env.C")) << "the first failure ends the list";
    EXPECT_FALSE(report.Has("env.OWNER_NAME"));
  });
}

// In a quick start the manager places and binds its children later.
TEST_F(LaunchFailure, QuickStartLeavesCgroupsAndCoresAlone) {
  HostContext::Instance().isQuickStart_ = true;
  ApplicationManifest::Fields fields = Fields();
  fields.resGroupName = "NOPE";
  fields.cpuset = "NOPE";
  ForBothKinds(fields, [&](auto& app) { (void)ReportOf(app); });
  EXPECT_EQ(PipeText(), "");
}

TEST_F(LaunchFailure, AFailedForkLeavesNoProcess) {
  // The filter can't be taken back, so it goes with a thread of its own.
  std::thread thread([] {
    PmTest::ForbidProcesses();
    ForBothKinds(Fields(), [](auto& app) {
      app.state_ = ProcessState::TERMINATED;
      app.pid_ = 4242;
      app.isExited_ = true;
      EXPECT_FALSE(app.StartProcess());
      EXPECT_EQ(app.state_, ProcessState::TERMINATED);
      EXPECT_TRUE(app.isExited_) << "the pid may be a stranger's";
      EXPECT_EQ(app.pid_, 4242);
      EXPECT_EQ(app.startTime_, SteadyTime{});
    });
  });
  thread.join();
  const char* const base = "E PROCMGR : Start baseApp svc failed errno=11";
  const char* const general = "E PROCMGR: Start generalApp failed. fork failed: errno=11";
  const Lines expected = {base, general, base, general};
  EXPECT_EQ(TakeLog(), expected);
}

}  // namespace
}  // namespace ProcMgr::App
