#include "tools/demo/demo_platform.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace Demo {
namespace {

struct User {
  const char* name;
  uid_t id;  // Of the user and of its group.
};
constexpr std::array<User, 7> kUsers = {{{"platform", 1000},
                                         {"iam", 2001},
                                         {"launcher", 2002},
                                         {"camera", 2003},
                                         {"navigation", 2004},
                                         {"recorder", 2005},
                                         {"operator", 2006}}};

gid_t GroupOf(const std::string& user) {
  for (const User& known : kUsers) {
    if (known.name == user) {
      return known.id;
    }
  }
  throw std::logic_error("the platform has no user " + user);
}

std::string ReadHostFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("can't read " + path.native() + ": is the build complete?");
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

void InstallFiles(const PmSandbox::Sandbox& sandbox) {
  const std::filesystem::path source = PmSandbox::ProgramPath("../share/platform");
  for (const char* file :
       {"platform.yaml", "services/access.yaml", "services/sensing.yaml", "services/driving.yaml",
        "services/operator.yaml", "entries/operator.yaml"}) {
    sandbox.WriteFile(std::string("/etc/zur/platform/") + file, ReadHostFile(source / file));
  }
  sandbox.WriteSettings(ReadHostFile(source / "procmgr_cfg.yaml"));
  sandbox.SetKernelCommandLine("quiet root=/dev/mmcblk0p2 procmgr=nowatchdog\n");
}

// The cores that this process may run on, as a cpuset wants them.
std::string OnlineCores() {
  std::ifstream file("/sys/devices/system/cpu/online");
  std::string cores;
  file >> cores;
  return cores.empty() ? "0" : cores;
}

void MakeGroups(const PmSandbox::Sandbox& sandbox) {
  sandbox.MakePlatformGroups(OnlineCores());
  for (const char* hierarchy : {"cpu", "memory"}) {
    sandbox.MakeGroup(hierarchy, "sensing");
  }
}

// Only the operator itself may put its socket there.
void MakeSocketFolder(const PmSandbox::Sandbox& sandbox) {
  const std::string folder = sandbox.Outside("/run/pm/operator");
  std::filesystem::create_directories(folder);
  if (chown(folder.c_str(), GroupOf("operator"), GroupOf("operator")) != 0) {
    throw std::system_error(errno, std::generic_category(), folder);
  }
}

}  // namespace

const std::vector<PlatformService>& PlatformServices() {
  static const std::vector<PlatformService> services = {
      {"boot_record", "recorder", false, false},
      {"iammgr", "iam"},
      {"map_service", "navigation"},
      {"proc_launcher", "launcher"},
      {"camera_service", "camera"},
      {"operator", "operator"},
      {"planner_service", "navigation"},
  };
  return services;
}

void InstallPlatform(const PmSandbox::Sandbox& sandbox) {
  MakeGroups(sandbox);
  for (const User& user : kUsers) {
    sandbox.AddUser(user.name, user.id, user.id, std::string("/home/") + user.name);
  }
  for (const PlatformService& service : PlatformServices()) {
    // Each program may be run by its own user's group and nobody else.
    sandbox.InstallProgram(PmSandbox::ProgramPath(service.name),
                           "/opt/platform/bin/" + service.name, 0, GroupOf(service.user), 0750);
  }
  // What people run by way of the operator, and the program with which they do it.
  sandbox.InstallProgram(PmSandbox::ProgramPath("sample_app"), kSampleApp, 0, GroupOf("operator"),
                         0750);
  sandbox.InstallProgram(PmSandbox::ProgramPath("pmctl"), kPmctl);
  MakeSocketFolder(sandbox);
  sandbox.WriteFile("/run/platform/README", "The services of the platform meet here.\n");
  std::filesystem::permissions(sandbox.Outside("/run/platform"),
                               std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
  InstallFiles(sandbox);
}

}  // namespace Demo
