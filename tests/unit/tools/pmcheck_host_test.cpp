// What the checker finds on a host: a folder that stands for the root of a platform.
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <utility>

#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using PmTest::Brief;
using PmTest::Result;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr Elf64_Half kX86 = EM_X86_64;
constexpr Elf64_Half kArm = EM_AARCH64;

// A 64 bit little-endian ELF file without segments.
std::string Elf(Elf64_Half machine) {
  Elf64_Ehdr header{};
  std::memcpy(header.e_ident,
              "\x7f"
              "ELF\x02\x01\x01",
              7);
  header.e_machine = machine;
  header.e_phentsize = sizeof(Elf64_Phdr);
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

using Links = std::vector<std::pair<Elf64_Sxword, std::string>>;

// One with a dynamic section that has these texts, and with an interpreter.
std::string Linked(const Links& links, const std::string& interpreter = "/lib/ld-linux-test.so.2") {
  std::string texts = interpreter + '\0';
  std::vector<Elf64_Dyn> entries;
  for (const auto& [tag, text] : links) {
    entries.push_back({tag, {texts.size()}});
    texts += text + '\0';
  }
  const std::size_t tableAt = sizeof(Elf64_Ehdr) + 3 * sizeof(Elf64_Phdr);
  const std::size_t entriesAt = tableAt + texts.size();
  constexpr Elf64_Addr kBase = 0x400000;
  entries.push_back({DT_STRTAB, {kBase + tableAt}});
  const std::size_t size = entries.size() * sizeof(Elf64_Dyn);
  const std::array<Elf64_Phdr, 3> segments = {
      {{PT_LOAD, 0, 0, kBase, 0, entriesAt + size, entriesAt + size, 1},
       {PT_INTERP, 0, tableAt, 0, 0, interpreter.size() + 1, 0, 1},
       {PT_DYNAMIC, 0, entriesAt, 0, 0, size, size, 1}}};
  std::string file = Elf(kX86);
  const Elf64_Off segmentsAt = file.size();
  const Elf64_Half count = segments.size();
  std::memcpy(&file[offsetof(Elf64_Ehdr, e_phoff)], &segmentsAt, sizeof(segmentsAt));
  std::memcpy(&file[offsetof(Elf64_Ehdr, e_phnum)], &count, sizeof(count));
  file.append(reinterpret_cast<const char*>(segments.data()), sizeof(segments));
  return file + texts + std::string(reinterpret_cast<const char*>(entries.data()), size);
}

// With an argument that takes `size` bytes without its zero.
std::string LongService(const std::string& name, std::size_t size) {
  return "  - {appName: " + name + ", uid: user, gid: user, binPath: /bin/good, arguments: [" +
         std::string(size, 'x') + "]}\n";
}

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
  - {appName: r, uid: user, gid: user, binPath: /bin/good, vfId: 0}
)" + LongService("s", 131071) + LongService("t", 131072));
  folder_.Write("etc/entry.yaml", R"(applications:
  - {appName: x, uid: user, gid: user, binPath: /bin/good, sharepoolGroups: [{groupName: VIDEO, permission: rw}]}
  - {appName: y, uid: user, gid: user, binPath: /bin/good, sharepoolGroups: [{groupName: VIDIO}]}
  - {appName: z, uid: user, gid: user, binPath: "/bin/${a|b}", coreAffinity: [255]}
)");
  const Result result = RunHost("--format json base.yaml");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(
      Brief(result.out, "base.yaml"),
      ElementsAre("3:74 warning ai-cores", "5:49 error binary", "6:49 error binary",
                  "7:49 error binary", "8:49 error binary", "9:49 error digest",
                  "10:49 error binary", "11:49 error binary", "12:49 error binary",
                  "13:53 error binary", "14:23 error user", "15:23 error user", "16:74 error cores",
                  "17:74 warning cgroup", "17:74 warning cgroup", "17:85 warning cgroup",
                  "19:23 error faulty-file", "20:66 warning numa", "22:72 error size"));
  EXPECT_THAT(Brief(result.out, "entry.yaml"), ElementsAre("3:77 warning share-group"));
}

// Each case is a program with its libraries in a root of their own; "NAME < WHO" is missing.
TEST_F(PmCheckHost, LibrariesAreFoundAsTheDynamicLinkerFindsThem) {
  const std::string plain = Elf(kX86);
  const Links needs = {{DT_NEEDED, "liba.so"}};
  const auto with = [&needs](Elf64_Sxword tag, const char* folders) {
    Links links = needs;
    links.emplace_back(tag, folders);
    return Linked(links);
  };
  const struct {
    const char* what;
    std::string program;
    std::map<std::string, std::string> files;
    const char* missing;
    const char* env = "";
  } cases[] = {
      {"there", Linked(needs), {{"usr/lib/liba.so", plain}}, ""},
      {"not there", Linked(needs), {}, "liba.so < program"},
      {"each once, with that of a library",
       Linked({{DT_NEEDED, "liba.so"}, {DT_NEEDED, "libb.so"}}),
       {{"lib/liba.so", Linked({{DT_NEEDED, "libb.so"}, {DT_NEEDED, "libc.so"}})}},
       "libb.so < program, libc.so < liba.so"},
      {"for another machine", Linked(needs), {{"lib/liba.so", Elf(kArm)}}, "liba.so < program"},
      {"behind one for another machine",
       Linked(needs),
       {{"lib64/liba.so", Elf(kArm)}, {"lib/liba.so", plain}},
       ""},
      {"of the architecture", Linked(needs), {{"usr/lib/x86_64-linux-gnu/liba.so", plain}}, ""},
      {"of the configuration",
       Linked(needs),
       {{"etc/ld.so.conf", "# /none\ninclude ld.so.conf.d/*.conf\n"},
        {"etc/ld.so.conf.d/x.conf", "/opt/x # here\n"},
        {"opt/x/liba.so", plain}},
       ""},
      {"rpath", with(DT_RPATH, "/none:$ORIGIN/../lib"), {{"opt/lib/liba.so", plain}}, ""},
      {"run path", with(DT_RUNPATH, "${ORIGIN}"), {{"opt/bin/liba.so", plain}}, ""},
      {"an rpath holds for libraries of libraries",
       with(DT_RPATH, "/opt/x"),
       {{"opt/x/liba.so", Linked({{DT_NEEDED, "libb.so"}})}, {"opt/x/libb.so", plain}},
       ""},
      {"a run path doesn't",
       with(DT_RUNPATH, "/opt/x"),
       {{"opt/x/liba.so", Linked({{DT_NEEDED, "libb.so"}})}, {"opt/x/libb.so", plain}},
       "libb.so < liba.so"},
      {"nor does an rpath hold beside a run path",
       Linked({{DT_NEEDED, "liba.so"}, {DT_RPATH, "/opt/x"}, {DT_RUNPATH, "/opt/y"}}),
       {{"opt/x/liba.so", plain}},
       "liba.so < program"},
      {"known by its own name",
       Linked({{DT_NEEDED, "liba.so"}, {DT_NEEDED, "libb.so"}}),
       {{"lib/liba.so", Linked({{DT_SONAME, "libb.so"}})}},
       ""},
      {"the linker itself", Linked({{DT_NEEDED, "ld-linux-test.so.2"}}), {}, ""},
      {"a path", Linked({{DT_NEEDED, "/opt/x/liba.so"}}), {{"opt/x/liba.so", plain}}, ""},
      {"of the environment", Linked(needs), {{"opt/x/liba.so", plain}}, "", "/none:/opt/x"},
      {"of the request", Linked(needs), {}, "", "${/[a-z]*}"},
      {"another linker", Linked(needs, "/lib/ld-musl-test.so.1"), {}, ""},
  };
  for (const auto& c : cases) {
    const PmTest::TempFolder root;
    for (const auto& [path, content] : c.files) {
      root.Write(path, content);
    }
    for (const char* const path : {"bin/sh", "lib/ld-linux-test.so.2", "lib/ld-musl-test.so.1"}) {
      root.Write(path, plain);
    }
    EXPECT_EQ(chmod(root.Write("opt/bin/program", c.program).c_str(), 0755), 0);
    root.Write("etc/passwd", "root:x:0:0::/:/bin/sh\n");
    root.Write("etc/group", "root:x:0:\n");
    folder_.Write("a.yaml",
                  "applications: [{appName: a, uid: 0, gid: 0, binPath: /opt/bin/program, envArgv: "
                  "{LD_LIBRARY_PATH: '" +
                      std::string(c.env) + "'}}]\n");
    const Result result = Run("--format json --host --root '" + root.Path("") + "' a.yaml");
    std::string missing;
    const auto report = nlohmann::json::parse(result.out);
    for (const auto& finding : report.at("files").at(0).at("findings")) {
      if (finding.at("rule") == "pattern-in-base") {
        continue;
      }
      std::smatch parts;
      const std::string message = finding.at("message");
      ASSERT_TRUE(std::regex_search(
          message, parts, std::regex("library \"(.*)\" isn't there, which \"/.*/(.*)\" needs")))
          << message;
      missing += (missing.empty() ? "" : ", ") + parts.str(1) + " < " + parts.str(2);
    }
    EXPECT_EQ(missing, c.missing) << c.what;
  }
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
