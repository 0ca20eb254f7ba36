#include "bench/booted_daemon.h"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/clock.h"
#include "core/sleep.h"
#include "tests/support/service_file.h"

namespace PmBench {

BootedDaemon::BootedDaemon(int services,
                           const std::vector<std::pair<std::string, std::string>>& keys)
    : serviceFile_(Prepare(services, keys)),
      startNs_(MonotonicNs()),
      daemon_(sandbox_, {serviceFile_}) {
  if (!log_.WaitFor("InitBaseApplication end").has_value()) {
    throw std::runtime_error("the boot didn't come to its end:\n" + log_.Text());
  }
  (void)marks_.Await(static_cast<std::size_t>(services));
}

std::string BootedDaemon::Prepare(
    int services, const std::vector<std::pair<std::string, std::string>>& keys) const {
  const unsigned cores = std::max(std::thread::hardware_concurrency(), 1U);
  sandbox_.MakePlatformGroups("0-" + std::to_string(cores - 1));
  sandbox_.InstallProgram(PmTest::ProgramPath("bench-service"), kServicePath);
  std::vector<PmTest::App> apps;
  apps.reserve(static_cast<std::size_t>(services));
  for (int i = 0; i < services; ++i) {
    PmTest::App app{"service" + std::to_string(i), kServicePath, {marks_.Path()}, keys};
    app.keys.emplace_back("envArgv", "{PROC_NAME: " + app.name + "}");
    apps.push_back(std::move(app));
  }
  std::string path = std::string(PmTest::Sandbox::kDir) + "/base.yaml";
  sandbox_.WriteFile(path, apps.empty() ? "applications: []\n" : PmTest::ServiceFile(apps));
  return path;
}

long BootedDaemon::ResidentKib() const {
  return std::stol(PmTest::StatusField(Pid(), "VmRSS"));
}

double BootedDaemon::IdleCpuUsPerSecond(int seconds) const {
  const long long cpuBefore = CpuNs(Pid());
  const long long before = MonotonicNs();
  ProcMgr::SleepNs(seconds * 1'000'000'000LL);
  const auto cpuUs = static_cast<double>(CpuNs(Pid()) - cpuBefore) / 1e3;
  return cpuUs / (static_cast<double>(MonotonicNs() - before) / 1e9);
}

}  // namespace PmBench
