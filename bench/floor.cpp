#include "bench/floor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "app/app_info.h"
#include "base/child_msg_pipe.h"
#include "base/text.h"
#include "bench/call_count.h"
#include "bench/clock.h"
#include "bench/figures.h"
#include "bench/marks.h"
#include "core/host_context.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"
#include "sandbox/process.h"
#include "sandbox/service_file.h"
#include "sandbox/wait.h"

namespace PmBench {
namespace {

constexpr const char* kOneByOne = "--floor";
constexpr const char* kLaunch = "--launch";
constexpr const char* kAtOnce = "--floor-at-once";
constexpr const char* kCalls = "--calls";
constexpr int kTracedStarts = 20;

// Starts the service and yields its pid; -1 if that failed.
using Starter = std::function<pid_t()>;

// Memory that fork has to copy the tables of, up to `kib` of the whole process.
std::vector<char> Grow(long kib) {
  const long own = std::stol(PmSandbox::StatusField(getpid(), "VmRSS"));
  std::vector<char> memory;
  if (kib > own) {
    memory.resize(static_cast<std::size_t>(kib - own) * 1024, 'x');
  }
  return memory;
}

// Threads that do nothing, up to `count` in all, and end with the process.
void AddThreads(std::size_t count) {
  for (std::size_t i = PmSandbox::Threads(getpid()).size(); i < count; ++i) {
    std::thread([] {
      for (;;) {
        pause();
      }
    }).detach();
  }
}

Starter BareStarter(const std::string& marksPath, const std::string& how) {
  return [marksPath, how] {
    std::string program = kServicePath;
    std::string file = marksPath;
    std::string option = how;
    char* const arguments[] = {program.data(), file.data(), option.data(), nullptr};
    const pid_t child = fork();
    if (child == 0) {
      execv(arguments[0], arguments);
      _exit(127);
    }
    return child;
  };
}

// What the daemon has done by the time it starts its first base application.
void PrepareAsTheDaemon() {
  ProcMgr::HostContext::Instance().pid_ = getpid();
  ProcMgr::OpenLog();
  ProcMgr::CreateChildMsgPipe();
  ProcMgr::CoreAffinityMgr::Instance().LoadCpuInfo();
}

template <typename Record>
Starter StarterOf(Record record) {
  return
      [record = std::move(record)]() mutable { return record.StartProcess() ? record.pid_ : -1; };
}

Starter ManagersStarter(const std::string& serviceFile, const std::string& kind = kBase) {
  PrepareAsTheDaemon();
  std::vector<ProcMgr::ApplicationManifest> manifests;
  if (ProcMgr::ParseAndDepend::Instance().ParseYaml(ProcMgr::ParamType::kDefault, serviceFile,
                                                    manifests, {}) != 0 ||
      manifests.empty()) {
    throw std::runtime_error("the service file can't be read");
  }
  const ProcMgr::ApplicationManifest& manifest = manifests.front();
  if (kind == kGeneral) {
    return StarterOf(ProcMgr::App::GeneralAppInfo(manifest.GetAppName(), manifest, "owner"));
  }
  return StarterOf(ProcMgr::App::BaseAppInfo(manifest));
}

bool StartAndAwait(const Starter& start) {
  const long long before = MonotonicNs();
  const pid_t child = start();
  int status = -1;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
    return false;
  }
  std::printf("%d %lld\n", child, before);
  return true;
}

int StartOneByOne(const Starter& start, int count) {
  const long long cpuBefore = CpuNs(getpid());
  for (int i = 0; i < count; ++i) {
    if (!StartAndAwait(start)) {
      return 1;
    }
  }
  std::printf("cpu %lld\n", CpuNs(getpid()) - cpuBefore);
  return 0;
}

int CountCallsOfStarts(const std::string& file, const std::string& kind, int count) {
  const CallCount result = CountCalls([&] {
    const Starter start = kind == kBare ? BareStarter(file, "--once") : ManagersStarter(file, kind);
    return StartOneByOne(start, count);
  });
  std::printf("children %ld\ncalls %ld\n", result.children, result.calls);
  return result.children == count ? 0 : 1;
}

int StartAtOnce(const std::string& marksPath, int count, int killed) {
  const Starter start = BareStarter(marksPath, "--rest");
  std::vector<pid_t> children;
  children.reserve(static_cast<std::size_t>(count));
  std::printf("began %lld\n", MonotonicNs());
  for (int i = 0; i < count; ++i) {
    children.push_back(start());
  }
  if (std::count(children.begin(), children.end(), -1) != 0 ||
      !PmSandbox::Eventually([&] { return HasLines(marksPath, children.size()); })) {
    return 1;
  }
  const long long before = MonotonicNs();
  for (auto child = children.end() - killed; child != children.end(); ++child) {
    (void)kill(*child, SIGKILL);
  }
  const long long cpuBefore = CpuNs(getpid());
  for (int i = 0; i < killed; ++i) {
    if (waitpid(-1, nullptr, 0) < 0) {
      return 1;
    }
  }
  std::printf("cpu %lld\n", CpuNs(getpid()) - cpuBefore);
  std::printf("end %lld\n", MonotonicNs() - before);
  return 0;
}

// Runs this program in the sandbox and yields what it has told.
std::map<std::string, long long> RunInside(const PmSandbox::Sandbox& sandbox,
                                           const std::vector<std::string>& arguments) {
  const std::string& how = arguments.front();
  PmSandbox::Process process(sandbox, PmSandbox::ProgramPath("pm-bench"), arguments,
                             {{}, how.substr(2)});
  const auto status = process.WaitExit();
  if (!status.has_value() || *status != 0) {
    throw std::runtime_error("pm-bench " + how + " failed: " + process.Output());
  }
  std::map<std::string, long long> told;
  std::istringstream output(process.Output());
  for (std::string key; output >> key;) {
    output >> told[key];
  }
  return told;
}

Starts Measure(const PmSandbox::Sandbox& sandbox, const std::string& how, const Marks& marks,
               const std::string& file, const ProcessSize& size, int count) {
  const auto told = RunInside(sandbox, {how, std::to_string(size.residentKib),
                                        std::to_string(size.threads), std::to_string(count), file});
  Starts starts;
  starts.parentCpuUs = static_cast<double>(told.at("cpu")) / 1e3 / count;
  std::vector<double> childCpu;
  for (const Mark& mark : marks.Await(static_cast<std::size_t>(count))) {
    childCpu.push_back(static_cast<double>(mark.cpuNs) / 1e3);
    starts.forkToMainUs.push_back(
        static_cast<double>(mark.mainNs - told.at(std::to_string(mark.pid))) / 1e3);
  }
  starts.childCpuUs = Mean(childCpu);
  return starts;
}

std::string WriteLaunchFile(const PmSandbox::Sandbox& sandbox, const Marks& marks) {
  std::string file = std::string(PmSandbox::Sandbox::kDir) + "/launch.yaml";
  sandbox.WriteFile(
      file, PmSandbox::ServiceFile({{"service", kServicePath, {marks.Path(), "--once"}, {}}}));
  return file;
}

}  // namespace

bool IsStartingProcess(int argc, char** argv) {
  return argc > 1 && (std::strcmp(argv[1], kOneByOne) == 0 || std::strcmp(argv[1], kLaunch) == 0 ||
                      std::strcmp(argv[1], kAtOnce) == 0 || std::strcmp(argv[1], kCalls) == 0);
}

int RunStartingProcess(int argc, char** argv) {
  const std::string how = argv[1];
  const bool isAtOnce = how == kAtOnce;
  if (argc != (isAtOnce || how == kCalls ? 7 : 6)) {
    return 2;
  }
  const auto kib = ProcMgr::ParseNumber<long>(argv[2]);
  const auto threads = ProcMgr::ParseNumber<std::size_t>(argv[3]);
  const auto count = ProcMgr::ParseNumber<int>(argv[4]);
  const char* const file = argv[5];
  const auto killed = isAtOnce ? ProcMgr::ParseNumber<int>(argv[6]) : 0;
  if (!kib.has_value() || !threads.has_value() || !count.has_value() || !killed.has_value() ||
      *killed > *count) {
    return 2;
  }
  if (how == kCalls) {
    return CountCallsOfStarts(file, argv[6], *count);
  }
  if (isAtOnce) {
    AddThreads(*threads);
    const std::vector<char> memory = Grow(*kib);
    return StartAtOnce(file, *count, *killed);
  }
  const Starter start = how == kLaunch ? ManagersStarter(file) : BareStarter(file, "--once");
  AddThreads(*threads);
  const std::vector<char> memory = Grow(*kib);
  return StartOneByOne(start, *count);
}

Starts MeasureFloor(const PmSandbox::Sandbox& sandbox, const ProcessSize& size, int count) {
  const Marks marks(sandbox, "floor");
  return Measure(sandbox, kOneByOne, marks, marks.Path(), size, count);
}

StartsAtOnce MeasureFloorAtOnce(const PmSandbox::Sandbox& sandbox, const ProcessSize& size,
                                int count, int killed) {
  const Marks marks(sandbox, "floor-at-once");
  const auto told =
      RunInside(sandbox, {kAtOnce, std::to_string(size.residentKib), std::to_string(size.threads),
                          std::to_string(count), marks.Path(), std::to_string(killed)});
  const long long lastNs = LastMainNs(marks.Await(static_cast<std::size_t>(count)));
  return {static_cast<double>(lastNs - told.at("began")) / 1e3,
          static_cast<double>(told.at("end")) / 1e3,
          static_cast<double>(told.at("cpu")) / 1e3 / killed};
}

Starts MeasureLaunch(const PmSandbox::Sandbox& sandbox, const ProcessSize& size, int count) {
  const Marks marks(sandbox, "launch");
  const std::string file = WriteLaunchFile(sandbox, marks);
  return Measure(sandbox, kLaunch, marks, file, size, count);
}

double MeasureCalls(const PmSandbox::Sandbox& sandbox, const std::string& kind) {
  const Marks marks(sandbox, "calls");
  const std::string file = kind == kBare ? marks.Path() : WriteLaunchFile(sandbox, marks);
  const auto told =
      RunInside(sandbox, {kCalls, "0", "1", std::to_string(kTracedStarts), file, kind});
  return static_cast<double>(told.at("calls")) / static_cast<double>(told.at("children"));
}

}  // namespace PmBench
