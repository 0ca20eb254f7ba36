// What the checker finds on a host: a folder that stands for the root of a platform.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using PmTest::Brief;
using PmTest::Result;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// The head of a 64 bit little-endian ELF file without segments.
std::string Elf(char machine) {
  std::string bytes(64, '\0');
  bytes.replace(0, 7,
                "\x7f"
                "ELF\x02\x01\x01");
  bytes[18] = machine;
  bytes[54] = 56;  // The size of a segment's header.
  return bytes;
}

constexpr char kX86 = 62;
constexpr char kArm = static_cast<char>(183);

class PmCheckHost : public PmTest::PmCheck {
 protected:
  PmCheckHost() {
    WriteProgram("bin/sh", Elf(kX86), 0755);
    for (const char* const tasks : {"cpu/OTHER/tasks", "memory/OTHER/tasks", "cpu/sensing/tasks",
                                    "memory/sensing/tasks", "cpuset/CtrlCPU/tasks"}) {
      folder_.Write(std::string("sys/fs/cgroup/") + tasks, "");
    }
    folder_.Write("sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", "0-1\n");
    folder_.Write("sys/fs/cgroup/cpuset/AICPU/cpuset.cpus", "1\n");
  }

  void WriteProgram(const std::string& path, const std::string& content, mode_t mode) {
    EXPECT_EQ(chmod(folder_.Write(path, content).c_str(), mode), 0) << path;
  }

  // A user database with these users, all of them in the group of the test's files.
  void WriteUsers(const std::set<std::string>& names) {
    std::string passwd;
    std::string group;
    std::string members;
    for (const std::string& name : names) {
      const std::string id = std::to_string(70000 + members.size());
      passwd.append(name).append(":x:").append(id).append(":").append(id).append("::/:/bin/sh\n");
      group.append(name).append(":x:").append(id).append(":\n");
      members.append(members.empty() ? "" : ",").append(name);
    }
    folder_.Write("etc/passwd", passwd);
    folder_.Write("etc/group", group + "files:x:" + std::to_string(getegid()) + ':' + members +
                                   "\nother:x:71000:\n");
  }

  // With the folder for the root of the platform.
  Result RunHost(const std::string& arguments) { return Run("--host --root . " + arguments); }
};

TEST_F(PmCheckHost, EachPlantedFaultIsFoundAtItsPlaceAndNothingElse) {
  WriteUsers({"user"});
  std::ofstream(folder_.Path("etc/passwd"), std::ios::app)
      << "stranger:x:72000:71000::/:/bin/sh\nbusy:x:73000:71000::/:/bin/sh\n";
  for (int i = 0; i < 128; ++i) {
    std::ofstream(folder_.Path("etc/group"), std::ios::app)
        << 'g' << i << ":x:" << 80000 + i << ":busy\n";
  }
  WriteProgram("bin/good", "#! /bin/sh -e\n", 0750);
  WriteProgram("bin/elf", Elf(kX86), 0750);
  WriteProgram("bin/arm", Elf(kArm), 0750);
  WriteProgram("bin/not", "#!/bin/sh\n", 0705);
  WriteProgram("bin/text", "echo\n", 0750);
  WriteProgram("bin/lost", "#!/bin/ksh\n", 0750);
  WriteProgram("bin/changed", "#!/bin/sh\n", 0750);
  std::filesystem::create_symlink("/bin/good", folder_.Path("bin/link"));
  std::filesystem::create_symlink("/bin/loop", folder_.Path("bin/loop"));
  folder_.Write("etc/zur/base-plat/process-manager/bin_hash.cfg",
                "changed=" + std::string(64, '0') + "\n");
  folder_.Write("etc/sharepool/pools.yaml", "sharepool_groups: [{VIDEO: {mem_size: 1}}]\n");
  folder_.Write("base.yaml", R"(applications:
  - {appName: a, uid: user, gid: user, binPath: /bin/good, resGroupName: OTHER, cpuset: CtrlCPU}
  - {appName: b, uid: user, gid: user, binPath: /bin/link, coreAffinity: [0-1]}
  - {appName: c, uid: user, gid: user, binPath: /bin/elf}
  - {appName: d, uid: user, gid: user, binPath: /bin/arm}
  - {appName: e, uid: user, gid: user, binPath: /bin/not}
  - {appName: f, uid: user, gid: user, binPath: /bin/text}
  - {appName: g, uid: user, gid: user, binPath: /bin/lost}
  - {appName: h, uid: user, gid: user, binPath: /bin/changed}
  - {appName: i, uid: user, gid: user, binPath: /bin/none}
  - {appName: j, uid: user, gid: user, binPath: /bin/loop}
  - {appName: k, uid: user, gid: user, binPath: /bin}
  - {appName: l, uid: stranger, gid: user, binPath: /bin/good}
  - {appName: m, uid: busy, gid: user, binPath: /bin/good}
  - {appName: n, uid: 74000, gid: user, binPath: /bin/good}
  - {appName: o, uid: user, gid: user, binPath: /bin/good, coreAffinity: [1, 2]}
  - {appName: p, uid: user, gid: user, binPath: /bin/good, resGroupName: X, cpuset: Y}
  - {appName: ventrix, uid: user, gid: user, binPath: /bin/good, startupEntryPath: /etc/entry.yaml}
  - {appName: q, uid: nobody_at_all, gid: user, binPath: /bin/good}
)");
  folder_.Write("etc/entry.yaml", R"(applications:
  - {appName: x, uid: user, gid: user, binPath: /bin/good, sharepoolGroups: [{groupName: VIDEO, permission: rw}]}
  - {appName: y, uid: user, gid: user, binPath: /bin/good, sharepoolGroups: [{groupName: VIDIO}]}
  - {appName: z, uid: user, gid: user, binPath: "/bin/${a|b}", coreAffinity: [255]}
)");
  const Result result = RunHost("--format json base.yaml");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(Brief(result.out, "base.yaml"),
              ElementsAre("3:74 warning ai-cores", "5:49 error binary", "6:49 error binary",
                          "7:49 error binary", "8:49 error binary", "9:49 error digest",
                          "10:49 error binary", "11:49 error binary", "12:49 error binary",
                          "13:53 error binary", "14:23 error user", "15:23 error user",
                          "16:74 error cores", "17:74 warning cgroup", "17:74 warning cgroup",
                          "17:85 warning cgroup", "19:23 error faulty-file"));
  EXPECT_THAT(Brief(result.out, "entry.yaml"), ElementsAre("3:77 warning share-group"));
}

// The checker itself is a program with an interpreter: this machine has that, an empty root hasn't.
TEST_F(PmCheckHost, RealProgramRunsHereAndMissesItsInterpreterElsewhere) {
  WriteUsers({"user"});
  std::ostringstream program;
  program << std::ifstream(PMCHECK).rdbuf();
  WriteProgram("bin/sh", program.str(), 0755);
  folder_.Write("there.yaml",
                "applications: [{appName: a, uid: user, gid: user, binPath: /bin/sh}]\n");
  const Result there = RunHost("there.yaml");
  EXPECT_EQ(there.status, 1);
  EXPECT_THAT(there.err, HasSubstr("there.yaml:1:60: error: \"/bin/sh\" can't be started: its "
                                   "interpreter \"/"));
  folder_.Write("here.yaml", "applications: [{appName: a, uid: " + std::to_string(geteuid()) +
                                 ", gid: 0, binPath: " PMCHECK "}]\n");
  const Result here = Run("--host here.yaml");
  EXPECT_EQ(here.status, 0);
  EXPECT_EQ(here.err, "");
}

TEST_F(PmCheckHost, KernelCommandLineTellsWhatIsBooted) {
  WriteUsers({"user"});
  WriteProgram("bin/good", Elf(kX86), 0750);
  folder_.Write("emService.yaml", "{appName: em, uid: user, gid: user, binPath: /bin/good}\n");
  folder_.Write("base.yaml", "applications: [{include: emService.yaml}]\n");
  folder_.Write("etc/zur/base-plat/process-manager/small.yaml", "applications: []\n");
  const struct {
    const char* cmdline;
    std::vector<const char*> lines;
  } cases[] = {
      {"quiet procmgr=em", {}},
      {"quiet", {"emService.yaml:1:11: warning: \"em\" is left out"}},
      {"procmgr=em,boot:small.yaml", {"base.yaml:1:1: warning: the kernel command line boots"}},
      {"procmgr=em,boot:none.yaml", {"\nwarning: ProcMgr: cmdline cfg startup yaml"}},
  };
  for (const auto& c : cases) {
    folder_.Write("proc/cmdline", c.cmdline);
    const Result result = RunHost("base.yaml");
    EXPECT_EQ(result.status, 0) << c.cmdline;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), c.lines.size()) << result.err;
    for (const char* const line : c.lines) {
      EXPECT_THAT('\n' + result.err, HasSubstr(line)) << c.cmdline;
    }
  }
}

TEST_F(PmCheckHost, ExamplePlatformHasNoFinding) {
  const std::filesystem::path folder = std::filesystem::path(EXAMPLE_PLATFORM).parent_path();
  std::filesystem::copy(folder, folder_.Path("platform"), std::filesystem::copy_options::recursive);
  // It gets the users and programs that it names.
  std::set<std::string> users;
  std::set<std::string> programs;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    std::ifstream in(entry.path());
    for (std::string word, value; in >> word;) {
      if ((word == "uid:" || word == "binPath:") && in >> value) {
        (word == "uid:" ? users : programs).insert(value);
      }
    }
  }
  ASSERT_FALSE(users.empty() || programs.empty());
  WriteUsers(users);
  for (const std::string& program : programs) {
    WriteProgram(program.substr(1), Elf(kX86), 0755);
  }
  const Result result = RunHost("--strict platform/platform.yaml platform/entries/operator.yaml");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr("round 4: planner_service\n"));
}

TEST_F(PmCheckHost, RootNeedsHost) {
  EXPECT_EQ(Run("--root . base.yaml").status, 2);
}

}  // namespace
