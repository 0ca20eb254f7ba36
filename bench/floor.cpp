#include "bench/floor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "app/app_info.h"
#include "bench/clock.h"
#include "bench/figures.h"
#include "bench/marks.h"
#include "core/child_msg_pipe.h"
#include "core/host_context.h"
#include "core/log.h"
#include "core/text.h"
#include "host/core_affinity_mgr.h"
#include "tests/support/process.h"
#include "tests/support/service_file.h"

namespace PmBench {
namespace {

// Starts the service and yields its pid; -1 if that failed.
using Starter = std::function<pid_t()>;

// Memory that fork has to copy the tables of, up to `kib` of the whole process.
std::vector<char> Grow(long kib) {
  const long own = std::stol(PmTest::StatusField(getpid(), "VmRSS"));
  std::vector<char> memory;
  if (kib > own) {
    memory.resize(static_cast<std::size_t>(kib - own) * 1024, 'x');
  }
  return memory;
}

Starter BareStarter(const std::string& marksPath) {
  return [marksPath] {
    std::string program = kServicePath;
    std::string file = marksPath;
    std::string once = "--once";
    char* const arguments[] = {program.data(), file.data(), once.data(), nullptr};
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

Starter ManagersStarter(const std::string& serviceFile) {
  PrepareAsTheDaemon();
  std::vector<ProcMgr::ApplicationManifest> manifests;
  if (ProcMgr::ParseAndDepend::Instance().ParseYaml(ProcMgr::ParamType::kDefault, serviceFile,
                                                    manifests, {}) != 0 ||
      manifests.empty()) {
    throw std::runtime_error("the service file can't be read");
  }
  return [record = ProcMgr::App::BaseAppInfo(manifests.front())]() mutable {
    return record.StartProcess() ? record.pid_ : -1;
  };
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

Starts Measure(const PmTest::Sandbox& sandbox, const std::string& how, const Marks& marks,
               const std::string& argument, long residentKib, int count) {
  PmTest::Process process(sandbox, PmTest::ProgramPath("pm-bench"),
                          {how, std::to_string(residentKib), std::to_string(count), argument},
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

}  // namespace

int RunStartingProcess(int argc, char** argv) {
  const auto kib = argc == 5 ? ProcMgr::ParseNumber<long>(argv[2]) : std::nullopt;
  const auto count = argc == 5 ? ProcMgr::ParseNumber<int>(argv[3]) : std::nullopt;
  if (!kib.has_value() || !count.has_value()) {
    return 2;
  }
  const Starter start =
      std::strcmp(argv[1], "--floor") == 0 ? BareStarter(argv[4]) : ManagersStarter(argv[4]);
  const std::vector<char> memory = Grow(*kib);
  const long long cpuBefore = CpuNs(getpid());
  for (int i = 0; i < *count; ++i) {
    if (!StartAndAwait(start)) {
      return 1;
    }
  }
  std::printf("cpu %lld\n", CpuNs(getpid()) - cpuBefore);
  return 0;
}

Starts MeasureFloor(const PmTest::Sandbox& sandbox, long residentKib, int count) {
  const Marks marks(sandbox, "floor");
  return Measure(sandbox, "--floor", marks, marks.Path(), residentKib, count);
}

Starts MeasureLaunch(const PmTest::Sandbox& sandbox, long residentKib, int count) {
  const Marks marks(sandbox, "launch");
  const std::string file = std::string(PmTest::Sandbox::kDir) + "/launch.yaml";
  sandbox.WriteFile(file,
                    PmTest::ServiceFile({{"service", kServicePath, {marks.Path(), "--once"}, {}}}));
  return Measure(sandbox, "--launch", marks, file, residentKib, count);
}

}  // namespace PmBench
