#include "tools/demo/demo_platform.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "sandbox/process.h"

namespace Demo {
namespace {

constexpr const char* kProgramFolder = "/opt/platform/bin/";
constexpr const char* kLibraries = "/opt/platform/lib";
constexpr const char* kPythonModules = "/opt/platform/python";

struct User {
  const char* name;
  uid_t id;  // Of the user and of its group.
};
constexpr std::array<User, 8> kUsers = {{{"platform", 1000},
                                         {"iam", 2001},
                                         {"launcher", 2002},
                                         {"camera", 2003},
                                         {"navigation", 2004},
                                         {"recorder", 2005},
                                         {"operator", 2006},
                                         {"guest", 2007}}};

// What the users run, each its own.
struct Program {
  const char* file;  // From the folder of the demo.
  const char* user;
};
constexpr std::array<Program, 12> kPrograms = {
    {{"boot_record", "recorder"},
     {"iammgr", "iam"},
     {"map_service", "navigation"},
     {"proc_launcher", "launcher"},
     {"camera_service", "camera"},
     {"operator", "operator"},
     {"sample_app", "operator"},
     {"planner_service", "navigation"},
     {"c_service", "guest"},
     {"pm-notify", "guest"},
     {"../share/platform/scripts/shell_service.sh", "guest"},
     {"../share/platform/scripts/python_service.py", "guest"}}};

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
       {"platform.yaml", "with_python.yaml", "services/access.yaml", "services/sensing.yaml",
        "services/driving.yaml", "services/operator.yaml", "services/languages.yaml",
        "services/python.yaml", "entries/operator.yaml"}) {
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

// Where every service may put files, and none may touch another's.
void MakeSharedFolder(const PmSandbox::Sandbox& sandbox, const std::string& inside) {
  std::filesystem::create_directories(sandbox.Outside(inside));
  std::filesystem::permissions(sandbox.Outside(inside),
                               std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
}

// The agent's library, for C and Python.
void InstallLibraries(const PmSandbox::Sandbox& sandbox) {
  sandbox.InstallProgram(PmSandbox::ProgramPath("../lib/libprocess_manager_agent.so.1"),
                         std::string(kLibraries) + "/libprocess_manager_agent.so.1");
  sandbox.InstallProgram(PmSandbox::ProgramPath("../share/platform/scripts/process_manager.py"),
                         std::string(kPythonModules) + "/process_manager.py", 0, 0, 0644);
}

}  // namespace

std::vector<PlatformService> PlatformServices(bool withPython) {
  std::vector<PlatformService> services = {
      {"boot_record", "recorder", false, false},
      {"iammgr", "iam"},
      {"map_service", "navigation"},
      {"proc_launcher", "launcher"},
      {"c_service", "guest"},
      {"camera_service", "camera"},
      {"operator", "operator"},
      {"shell_service", "guest"},
      {"planner_service", "navigation"},
  };
  if (withPython) {
    services.insert(services.end() - 2, {"python_service", "guest"});
  }
  return services;
}

void InstallPlatform(const PmSandbox::Sandbox& sandbox) {
  MakeGroups(sandbox);
  for (const User& user : kUsers) {
    sandbox.AddUser(user.name, user.id, user.id, std::string("/home/") + user.name);
  }
  for (const Program& program : kPrograms) {
    const std::string path = PmSandbox::ProgramPath(program.file);
    // Each may be run by its own user's group and nobody else.
    sandbox.InstallProgram(path, kProgramFolder + std::filesystem::path(path).filename().string(),
                           0, GroupOf(program.user), 0750);
  }
  // With what people run applications.
  sandbox.InstallProgram(PmSandbox::ProgramPath("pmctl"), kPmctl);
  InstallLibraries(sandbox);
  MakeSocketFolder(sandbox);
  MakeSharedFolder(sandbox, "/run/platform");
  MakeSharedFolder(sandbox, "/run/pm-notify");
  InstallFiles(sandbox);
}

bool HasPython(const PmSandbox::Sandbox& sandbox) {
  PmSandbox::Process python(sandbox, "/usr/bin/python3", {"-c", "import process_manager"},
                            {{{"LD_LIBRARY_PATH", kLibraries},
                              {"PYTHONPATH", kPythonModules},
                              {"PYTHONDONTWRITEBYTECODE", "1"}},
                             "python"});
  return python.WaitExit() == 0;
}

}  // namespace Demo
