// What a child could not do: the text that it leaves in the pipe and the code with which it ends.
#include <elf.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <thread>

#include "core/host_context.h"
#include "tests/support/forbidden_calls.h"
#include "tests/unit/app/fakes.h"
#include "tests/unit/app/launch_fixture.h"
#include "tests/unit/app/log_lines.h"

namespace ProcMgr::App {
namespace {

using LaunchFailure = LaunchTest;

constexpr const char* kBroken = "/opt/test/broken";
constexpr int kStatus1 = 1 << 8;

// A program whose file was cut off behind its headers: the name of its interpreter is missing, and
// the kernel says EIO as it does for a medium that can't be read.
std::string TruncatedProgram() {
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_type = ET_EXEC;
#ifdef __aarch64__
  header.e_machine = EM_AARCH64;
#else
  header.e_machine = EM_X86_64;
#endif
  header.e_version = EV_CURRENT;
  header.e_phoff = sizeof(header);
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = 1;
  Elf64_Phdr interpreter{};
  interpreter.p_type = PT_INTERP;
  interpreter.p_offset = 4096;
  interpreter.p_filesz = 20;
  std::string file(sizeof(header) + sizeof(interpreter), '\0');
  std::memcpy(file.data(), &header, sizeof(header));
  std::memcpy(file.data() + sizeof(header), &interpreter, sizeof(interpreter));
  return file;
}

TEST_F(LaunchFailure, ExecTextsOfBothKinds) {
  sandbox_->WriteFile(kBroken, "no program", 0755);
  ASSERT_EQ(chown(kBroken, 0, kAppUserGid), 0);
  ApplicationManifest::Fields fields = Fields();
  fields.binPath = kBroken;
  BaseAppInfo base = BaseRecord(fields);
  EXPECT_EQ(StatusOf(base), kStatus1);
  // The text of the steps is on its way before the exec is tried.
  EXPECT_EQ(PipeText(), Message(base, kNoCores) + Message(base, "exec failed, errno=8;"));
  GeneralAppInfo general = GeneralRecord(fields);
  EXPECT_EQ(StatusOf(general), kStatus1);
  EXPECT_EQ(PipeText(), Message(general, kNoCores) +
                            Message(general, "execv failed, execPath_=/opt/test/broken, errno=8;"));
}

TEST_F(LaunchFailure, ExecThatMeetsAnIoErrorEndsSilentlyWith125) {
  sandbox_->WriteFile(kBroken, TruncatedProgram(), 0755);
  ASSERT_EQ(chown(kBroken, 0, kAppUserGid), 0);
  ApplicationManifest::Fields fields = Fields();
  fields.binPath = kBroken;
  ForBothKinds(fields, [](auto& app) {
    EXPECT_EQ(StatusOf(app), 125 << 8);
    EXPECT_EQ(PipeText(), Message(app, kNoCores));
  });
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
      EXPECT_FALSE(app.StartProcess());
      EXPECT_EQ(app.state_, ProcessState::TERMINATED);
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
