#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "base/boot_trace.h"
#include "base/names.h"
#include "base/standard_path.h"
#include "core/host_context.h"
#include "core/log.h"
#include "core/predecessor.h"
#include "core/process_manager.h"
#include "core/starter.h"
#include "platform/iam/iam.h"
#include "platform/timer/generic_timer.h"
#include "status/memory.h"

namespace ProcMgr {
namespace {

constexpr int kExitUsage = -1;  // 255 at the parent.
constexpr int kExitOther = 2;

constexpr const char* kHelp =
    "usage: process-manager BASE_SERVICE_YAML [true]\n"
    "\n"
    "Brings up the services of the platform, as root, and keeps account of every process.\n"
    "  BASE_SERVICE_YAML  what to start; the unit's is\n"
    "                     /etc/zur/base-plat/process-manager/base_services.yaml\n"
    "  true               a quick start\n"
    "  -h, --help         print this and end\n"
    "  --version          print the version and end\n"
    "See process-manager(8).\n";

// The text that the only argument asks for; null if it asks for none.
const char* TextAskedFor(std::string_view argument) {
  if (argument == "-h" || argument == "--help") {
    return kHelp;
  }
  return argument == "--version" ? "process-manager " PM_VERSION "\n" : nullptr;
}

int Usage(const char* program) {
  LogErrorRouted("ProcMgr: intput argc num is < 2, please input baseService yaml config path");
  (void)std::fprintf(stderr,
                     "%s: the path of the base-service YAML file is missing\n"
                     "usage: %s BASE_SERVICE_YAML [true]\n"
                     "  true: a quick start\n",
                     program, program);
  return kExitUsage;
}

bool SetProcMgrProcName() {
  if (setenv("PROC_NAME", kManagerName, 1) != 0) {
    LogErrorRouted("PROCMGR : Master SetProcMgrProcName failed: setenv failed");
    (void)std::fprintf(stderr, "process-manager: can't set PROC_NAME in the environment\n");
    return false;
  }
  return true;
}

bool ResolvePath(const char* argument, std::string& path) {
  if (!StandardizationPath(argument, path)) {
    LogErrorRouted("ProcMgr: StandardizationPath failed, path: %s", argument);
    (void)std::fprintf(stderr, "process-manager: no such base-service YAML file: %.200s\n",
                       argument);
    return false;
  }
  return true;
}

int Main(int argc, char** argv) {
  if (const char* const text = argc == 2 ? TextAskedFor(argv[1]) : nullptr; text != nullptr) {
    return std::fputs(text, stdout) < 0 ? 1 : 0;
  }
  HostContext& context = HostContext::Instance();
  context.pid_ = getpid();
  Status::Memory::Instance().BeginBoot();
  SetBootClock({&GenericTimerCount, &GenericTimerFrequency});
  OpenLog();
  (void)signal(SIGPIPE, SIG_IGN);
  if (argc < 2) {
    return Usage(argc > 0 ? argv[0] : "process-manager");
  }
  if (argc != 2) {
    context.isQuickStart_.store(std::string(argv[2]) == "true");
  }
  std::string path;
  if (!SetProcMgrProcName() || !ResolvePath(argv[1], path)) {
    return kExitUsage;
  }
  if (!BecomeOnlyManager()) {
    return kExitOther;
  }
  LeaveWorkingDirectory();
  LogInfoRouted("ProcMgr: main begin: baseServiceCfgPath: %s", path.c_str());
  LogInfoRouted("%s, PM main begin", BootStrace(kBootTraceTag).c_str());
  const int result = ProcMgrRun(path);
  if (result == 0) {
    LogInfo("process-manager ProcMgrRun finished");
  } else {
    LogWarning("process-manager ProcMgrRun failed");
  }
  IAMRetrieveService();
  return result;
}

// Nothing has been started yet that a shortage of memory could come between.
int MainOrWord(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    LogErrorRouted("ProcMgr: main ends: %s", error.what());
    (void)std::fprintf(stderr, "process-manager: %s\n", error.what());
    return kExitOther;
  }
}

}  // namespace
}  // namespace ProcMgr

int main(int argc, char** argv) {
  ProcMgr::PutStartRight();
  const int result = ProcMgr::MainOrWord(argc, argv);
  ProcMgr::CloseLog();
  return result;
}
