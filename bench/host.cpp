#include "bench/host.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>

#include "base/sleep.h"
#include "bench/marks.h"
#include "sandbox/process_table.h"

namespace PmBench {

void PrepareHost(const PmSandbox::Sandbox& sandbox) {
  const unsigned cores = std::max(std::thread::hardware_concurrency(), 1U);
  sandbox.MakePlatformGroups("0-" + std::to_string(cores - 1));
  sandbox.InstallProgram(PmSandbox::ProgramPath("bench-service"), kServicePath);
  // Whoever serves the first channel makes it; bench-services have no library that would.
  std::filesystem::create_directories(sandbox.Outside("/run/nexio"));
}

long ResidentKib(pid_t pid) {
  return std::stol(PmSandbox::StatusField(pid, "VmRSS"));
}

ProcessSize SizeOf(pid_t pid) {
  return {ResidentKib(pid), PmSandbox::Threads(pid).size()};
}

double IdleCpuUsPerSecond(pid_t pid, int seconds) {
  const long long cpuBefore = CpuNs(pid);
  const long long before = MonotonicNs();
  ProcMgr::SleepNs(seconds * 1'000'000'000LL);
  const auto cpuUs = static_cast<double>(CpuNs(pid) - cpuBefore) / 1e3;
  return cpuUs / (static_cast<double>(MonotonicNs() - before) / 1e9);
}

double BareLoopUsPerSecond(int seconds) {
  constexpr long long kPassNs = 30'000'000;
  double cpuUs = 0;
  std::thread loop([&] {
    const long long cpuBefore = ReadClockNs(CLOCK_THREAD_CPUTIME_ID);
    const long long end = MonotonicNs() + seconds * 1'000'000'000LL;
    while (MonotonicNs() < end) {
      ProcMgr::SleepNs(kPassNs);
    }
    cpuUs = static_cast<double>(ReadClockNs(CLOCK_THREAD_CPUTIME_ID) - cpuBefore) / 1e3;
  });
  loop.join();
  return cpuUs / seconds;
}

}  // namespace PmBench
