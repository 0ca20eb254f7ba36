// Faults of a platform's author: each is planted in the example platform, and is all that is found.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

namespace fs = std::filesystem;

using ::testing::HasSubstr;

constexpr const char* kPlatform = "platform.yaml";
constexpr const char* kAccess = "services/access.yaml";
constexpr const char* kSensing = "services/sensing.yaml";
constexpr const char* kDriving = "services/driving.yaml";
constexpr const char* kOperator = "services/operator.yaml";
constexpr const char* kEntries = "entries/operator.yaml";
constexpr const char* kCpuset = "sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus";
constexpr const char* kCmdline = "proc/cmdline";
constexpr const char* kNodes = "sys/devices/system/node/online";
constexpr const char* kHashes = "etc/zur/base-plat/process-manager/bin_hash.cfg";
constexpr const char* kEm = "appName: em\nbinPath: /bin/sh\nuid: iam\ngid: iam\n";
constexpr const char* kIncludeEm = "  - include: emService.yaml\n";
constexpr const char* kMapProgram = "opt/platform/bin/map_service";

std::string Program() {
  return PmTest::Elf(EM_X86_64);
}

std::string Content(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// A real program with an interpreter, whatever machine this test runs on.
std::string MadeForX86(std::string elf) {
  constexpr Elf64_Half kMachine = EM_X86_64;
  std::memcpy(elf.data() + offsetof(Elf64_Ehdr, e_machine), &kMachine, sizeof(kMachine));
  return elf;
}

// The example platform in the root of a host that has what the platform names.
class ExampleHost : public PmTest::Checker {
 public:
  ExampleHost() {
    const fs::path source = fs::path(EXAMPLE_PLATFORM).parent_path();
    fs::copy(source, folder_.Path(""), fs::copy_options::recursive);
    std::set<std::string> users;
    std::set<std::string> programs = {"/bin/sh"};
    for (const auto& entry : fs::recursive_directory_iterator(source)) {
      std::ifstream in(entry.path());
      for (std::string word, value; in >> word;) {
        if ((word == "uid:" || word == "binPath:") && in >> value) {
          (word == "uid:" ? users : programs).insert(value);
        }
      }
    }
    WriteUsers(users);
    for (const std::string& program : programs) {
      Edit(program.substr(1), "", Program(), 0755);
    }
    fs::create_symlink(std::string("/") + kMapProgram, folder_.Path("opt/platform/bin/link"));
    fs::create_symlink("/services/driving.yaml", folder_.Path("services/link.yaml"));
    fs::create_symlink("/entries/operator.yaml", folder_.Path("entries/link.yaml"));
    fs::create_symlink("/opt/platform/bin", folder_.Path("programs"));
    fs::create_symlink("loop", folder_.Path("opt/platform/bin/loop"));
    for (const char* const group :
         {"cpu/OTHER", "memory/OTHER", "cpu/sensing", "memory/sensing", "cpuset/CtrlCPU"}) {
      folder_.Write(std::string("sys/fs/cgroup/") + group + "/tasks", "");
    }
    folder_.Write(kCpuset, "0-1\n");
    folder_.Write("sys/fs/cgroup/cpuset/AICPU/cpuset.cpus", "1\n");
    folder_.Write(kCmdline, "quiet");
  }

  // Replaces the one place of `from` by `to`, or appends `to` if there is no `from`. A mode of 0
  // leaves that of the file.
  void Edit(const std::string& file, const std::string& from, const std::string& to, mode_t mode) {
    std::string text = Content(folder_.Path(file));
    const std::size_t at = from.empty() ? text.size() : text.find(from);
    ASSERT_TRUE(at != std::string::npos && at == (from.empty() ? at : text.rfind(from)))
        << file << " hasn't one " << from;
    folder_.Write(file, text.replace(at, from.size(), to));
    ASSERT_TRUE(mode == 0 || chmod(folder_.Path(file).c_str(), mode) == 0) << file;
  }

  [[nodiscard]] std::string Root() const { return folder_.Path(""); }

 private:
  // All in the group of the test's files, but for "stranger" and "busy", who is in too many.
  void WriteUsers(const std::set<std::string>& names) const {
    std::string passwd =
        "root:x:0:0::/:/bin/sh\nstranger:x:72000:71000::/:/bin/sh\nbusy:x:73000:71000::/:/bin/sh\n";
    std::string group = "other:x:71000:\n";
    std::string members;
    for (const std::string& name : names) {
      const std::string id = std::to_string(70000 + members.size());
      passwd.append(name).append(":x:").append(id).append(":").append(id).append("::/:/bin/sh\n");
      group.append(name).append(":x:").append(id).append(":\n");
      members.append(members.empty() ? "" : ",").append(name);
    }
    for (int i = 0; i < 128; ++i) {
      group += 'g' + std::to_string(i) + ":x:" + std::to_string(80000 + i) + ":busy\n";
    }
    folder_.Write("etc/passwd", passwd);
    folder_.Write("etc/group", group + "files:x:" + std::to_string(getegid()) + ':' + members);
  }
};

struct Change {
  const char* file;
  std::string from;
  std::string to;
  mode_t mode = 0;
};

struct Fault {
  std::vector<Change> changes;
  const char* found;  // "FILE:LINE:COLUMN severity rule" of each.
  const char* told;   // Part of what is told.
};

Fault Plant(const char* found, const char* told, const std::vector<Change>& changes) {
  return {changes, found, told};
}

Change Map(const std::string& content, mode_t mode = 0) {
  return {kMapProgram, Program(), content, mode};
}
// Keys of a service each.
Change Planner(const std::string& keys) {
  return {kDriving, "restart: on-failure", keys};
}
Change Record(const std::string& keys) {
  return {kPlatform, "restart: \"no\"", keys};
}
Change Recorder(const std::string& keys) {
  return {kEntries, "appName: recorder", "appName: recorder\n    " + keys};
}
Change Encoder(const std::string& keys) {
  return {kEntries, "envArgv:", keys + "\n    envArgv:"};
}

std::vector<Fault> FaultsOfFiles() {
  return {
      Plant("services/driving.yaml:6:14 warning dependency-without-report",
            "which doesn't report: the boot doesn't wait for it",
            {{kDriving, "camera_service, map", "boot_record, map"}}),
      Plant("services/driving.yaml:6:14 error unmet-dependency",
            "the nearest name is \\\"camera_service\\\"",
            {{kDriving, "camera_service, map", "camera_servise, map"}}),
      Plant("services/sensing.yaml:19:26 error circle",
            "map_service -> planner_service -> map_service: none",
            {{kSensing, "dependList: [iammgr]", "dependList: [iammgr, planner_service]"}}),
      Plant("platform.yaml:10:14 error faulty-file", "services/access.yaml:3",
            {{kPlatform, "appName: boot_record", "appName: iammgr"}}),
      Plant("services/driving.yaml:9:17 error shell-token", "holds \\\"|\\\"",
            {Planner("arguments: [ok, 'a|b']")}),
      Plant("services/driving.yaml:9:13 error shell-token", "holds \\\"$\\\"",
            {Planner("arguments: [\"${a}\"]")}),
      Plant("services/driving.yaml:2:10 error channel-name", "can't be reached",
            {{kDriving, "appName: planner_service", "appName: planner service"}}),
      Plant("services/driving.yaml:8:10 warning proc-name", "it inherits PROC_NAME=PROCMGR",
            {{kDriving, "{PROC_NAME: planner_service}", "{}"}}),
      Plant("services/driving.yaml:8:28 warning proc-name", "PROC_NAME must be the appName",
            {{kDriving, "PROC_NAME: planner_service", "X: 1, PROC_NAME: planner"}}),
      Plant("services/driving.yaml:3:10 error pattern-in-base", "binPath is a pattern",
            {{kDriving, "bin/planner_service", "bin/${[a-z]*}"}}),
      Plant("platform.yaml:14:22 warning unread-key",
            "startupPriority isn't read of a base service", {Record("startupPriority: 1")}),
      Plant("platform.yaml:14:11 warning unread-key", "vfId isn't read", {Record("vfId: 0")}),
      Plant("platform.yaml:14:14 error faulty-file", "on-failure", {Record("restart: sometimes")}),
      Plant("platform.yaml:14:5 warning doubtful-file", "the nearest known is \\\"restart\\\"",
            {Record("restrat: \"no\"")}),
      Plant("platform.yaml:5:14 error faulty-file", "No such file",
            {{kPlatform, "services/driving", "services/drivin"}}),
      Plant("platform.yaml:12:10 error faulty-file", "uid is \\\"nobody_at_all\\\"",
            {{kPlatform, "uid: recorder", "uid: nobody_at_all"}}),
      Plant("services/operator.yaml:12:19 warning entry-file", "operators.yaml\\\" isn't there",
            {{kOperator, "../entries/operator", "operators"}}),
      Plant("entries/operator.yaml:4:17 warning unread-key", "dependList isn't read",
            {Recorder("dependList: [stubborn]")}),
      Plant("entries/operator.yaml:4:17 error shell-token", "holds \\\"$\\\"",
            {Recorder("arguments: ['$HOME']")}),
      Plant("entries/operator.yaml:16:22 warning priority", "its name is a pattern",
            {Encoder("startupPriority: 1")}),
      Plant("entries/operator.yaml:4:22 warning priority", "an argument is a pattern",
            {Recorder("startupPriority: 1\n    arguments: [\"${a|b}\"]")}),
      Plant("entries/operator.yaml:4:22 warning priority", "it has a match",
            {Recorder("startupPriority: 1\n    match: {board: x}")}),
      Plant("entries/operator.yaml:3:14 warning entry-twice", "more.yaml:1:26, and the file",
            {{kAccess, "uid: launcher", "startupEntryPath: ../more.yaml\n    uid: launcher"},
             {"more.yaml", "",
              "applications: [{appName: recorder, binPath: /bin/sh, uid: iam, gid: iam}]\n"}})};
}

std::vector<Fault> FaultsOfPrograms() {
  return {
      Plant("services/driving.yaml:3:10 error binary", "it isn't there",
            {{kDriving, "bin/planner_service", "bin/planner_servise"}}),
      Plant("services/driving.yaml:3:10 error binary", "it isn't there",
            {{kDriving, "bin/planner_service", "bin/loop"}}),
      Plant("services/driving.yaml:3:10 error binary", "it is no regular file",
            {{kDriving, "bin/planner_service", "bin"}}),
      Plant("services/sensing.yaml:16:14 error binary", "has no execute bit",
            {Map(Program(), 0705)}),
      Plant("services/sensing.yaml:16:14 error binary",
            "made for AArch64, 64 bit, and /bin/sh for x86-64", {Map(PmTest::Elf(EM_AARCH64))}),
      Plant("services/sensing.yaml:16:14 error binary", "neither an ELF program nor a script",
            {Map("echo\n")}),
      Plant("services/sensing.yaml:16:14 error binary",
            "its interpreter \\\"/bin/ksh\\\" isn't there", {Map("#!/bin/ksh\n")}),
      Plant("services/sensing.yaml:16:14 error binary", "its interpreter \\\"/",
            {Map(MadeForX86(Content(PMCHECK)))}),
      Plant("services/sensing.yaml:16:14 error digest", "so every start is refused",
            {{kHashes, "", "map_service=" + std::string(64, '0') + "\n"}}),
      Plant("services/sensing.yaml:4:14 error binary", "neither owns it nor is in its group",
            {{kSensing, "uid: camera", "uid: stranger"}}),
      Plant("services/sensing.yaml:5:10 error user", "doesn't know the user 74000",
            {{kSensing, "uid: camera", "uid: 74000"}}),
      Plant("services/sensing.yaml:5:10 error user", "in more than 128 groups",
            {{kSensing, "uid: camera", "uid: busy"}}),
  };
}

std::vector<Fault> FaultsOfHosts() {
  const Change vfId = Encoder("vfId: 0");
  return {
      Plant("services/sensing.yaml:12:19 error cores", "core 2 isn't in",
            {{kSensing, "[0]", "[0, 2]"}}),
      Plant("services/sensing.yaml:12:19 error cores", "can't be read", {{kCpuset, "0-1", ""}}),
      Plant("services/sensing.yaml:12:19 warning ai-cores", "outside of that cpuset",
            {{kSensing, "[0]", "[1]"}}),
      Plant(
          "services/sensing.yaml:10:19 warning cgroup, services/sensing.yaml:10:19 warning cgroup",
          "/sys/fs/cgroup/memory/sensin/tasks\\\" isn't there",
          {{kSensing, "resGroupName: sensing", "resGroupName: sensin"}}),
      Plant("services/driving.yaml:11:9 warning cgroup", "cpuset/CtrlCPUs/tasks\\\" isn't there",
            {{kDriving, "cpuset: CtrlCPU", "cpuset: CtrlCPUs"}}),
      Plant("services/driving.yaml:9:13 error size", "131073 bytes is more than the kernel takes",
            {Planner("arguments: [" + std::string(131072, 'x') + ']')}),
      Plant("entries/operator.yaml:16:11 warning numa, entries/operator.yaml:16:11 warning numa",
            "no list of them in \\\"/sys/devices/system/node/online", {vfId}),
      Plant("entries/operator.yaml:16:11 warning numa", "numa node number exceed. node_cnt=65",
            {vfId, {kNodes, "", "0-62,64-65\n"}}),
      Plant("entries/operator.yaml:16:11 warning numa", "libnuma.so.1 isn't there",
            {vfId, {kNodes, "", "0\n"}}),
      Plant("entries/operator.yaml:16:22 warning share-group",
            "doesn't get the group \\\"VIDIO\\\"",
            {{kOperator, "appName: operator", "appName: ventrix"},
             {kOperator, "PROC_NAME: operator", "PROC_NAME: ventrix"},
             {"etc/sharepool/pools.yaml", "", "sharepool_groups: [{VIDEO: {mem_size: 1}}]\n"},
             Encoder("sharepoolGroups: [{groupName: VIDIO}]")}),
      Plant("emService.yaml:1:10 warning kernel-cmdline", "doesn't ask for this optional service",
            {{kPlatform, "", kIncludeEm}, {"emService.yaml", "", kEm}}),
      Plant("platform.yaml:1:1 warning kernel-cmdline", "the kernel command line boots",
            {{kCmdline, "quiet", "procmgr=boot:small.yaml"},
             {"etc/zur/base-plat/process-manager/small.yaml", "", "applications: []\n"}}),
      Plant(":0:0 warning kernel-cmdline", "ProcMgr: cmdline cfg startup yaml",
            {{kCmdline, "quiet", "procmgr=boot:none.yaml"}}),
  };
}

std::vector<Fault> NoFaults() {
  return {
      Plant("", "",
            {{kPlatform, "", kIncludeEm},
             {"emService.yaml", "", kEm},
             {kCmdline, "quiet", "quiet procmgr=em"}}),
      Plant("", "", {{kDriving, "bin/planner_service", "bin/link"}, Map("#! /bin/sh -e\n", 0750)}),
      Plant("", "",
            {{kDriving, "/opt/platform/bin/planner_service", "/bin/pm-notify"},
             {kDriving, "{PROC_NAME: planner_service}", "{}"},
             Planner("arguments: [--name, planner_service, --serve, --, /b]"),
             {"bin/pm-notify", "", Program(), 0755}}),
      Plant("", "",
            {{kHashes, "",
              "map_service=28906597b9b08dc0a103c9e20dcf031b8852f901d397cd7e0b0899d72db68e09\n"},
             {kSensing, "/opt/platform/bin/map_service", "/programs/map_service"}}),
      Plant("", "",
            {{kPlatform, "services/driving.yaml", "/services/link.yaml"},
             {kOperator, "../entries/operator.yaml", "/entries/link.yaml"}}),
      Plant("", "", {{kSensing, "[0]", "[0-1]"}, {kSensing, "uid: camera", "uid: 0"}}),
      Plant("", "", {Planner("arguments: [" + std::string(131071, 'x') + "]")}),
      Plant("", "", {Encoder("vfId: 0"), {kNodes, "", "0\n"}, {"lib/libnuma.so.1", "", Program()}}),
      Plant("", "",
            {Recorder("coreAffinity: [255]"),
             {kEntries, "sample_app\n    uid: operator\n    gid: operator\n    arguments",
              "${a|b}\n    uid: operator\n    gid: operator\n    arguments"}})};
}

void ExpectFound(const std::vector<Fault>& faults) {
  for (const Fault& fault : faults) {
    ExampleHost host;
    for (const Change& change : fault.changes) {
      host.Edit(change.file, change.from, change.to, change.mode);
    }
    const std::string what = fault.changes.front().to.substr(0, 80);
    const PmTest::Result result =
        host.Run("--format json --match board=x --host --root . platform.yaml");
    std::string found;
    for (const std::string& each : PmTest::Brief(result.out)) {
      found += found.empty() ? "" : ", ";
      found += each.substr(each.starts_with(host.Root()) ? host.Root().size() : 0);
    }
    EXPECT_EQ(found, fault.found) << what;
    EXPECT_THAT(result.out, HasSubstr(fault.told)) << what;
    EXPECT_EQ(result.status, found.find(" error ") == std::string::npos ? 0 : 1) << what;
  }
}

TEST(PmCheckPlanted, EachFaultOfAFileIsFoundAtItsPlaceAndNothingElse) {
  ExpectFound(FaultsOfFiles());
}

TEST(PmCheckPlanted, EachFaultOfAHostIsFoundAtItsPlaceAndNothingElse) {
  ExpectFound(FaultsOfPrograms());
  ExpectFound(FaultsOfHosts());
}

TEST(PmCheckPlanted, WhatOnlyLooksLikeAFaultIsNone) {
  ExpectFound(NoFaults());
}

TEST(PmCheckPlanted, ExamplePlatformHasNoFinding) {
  ExampleHost host;
  const PmTest::Result result =
      host.Run("--strict --host --root . platform.yaml with_python.yaml entries/operator.yaml");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr("round 4: planner_service\n"));
}

}  // namespace
