#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "base/sleep.h"
#include "base/text.h"
#include "bench/booted_daemon.h"
#include "bench/clock.h"
#include "bench/host.h"
#include "bench/measures.h"
#include "status/memory.h"
#include "status/status_service.h"
#include "tools/local/local_client.h"

namespace PmBench {
namespace {

using ProcMgr::Status::AppId;
using ProcMgr::Status::Memory;

constexpr int kApps = 1000;
constexpr int kRounds = 50;
constexpr int kWatchedSeconds = 5;

Local::Deadline Soon() {
  return ProcMgr::SteadyNow() + std::chrono::seconds(10);
}

void MeasureAnswer(std::vector<Figure>& figures) {
  const BootedDaemon daemon(kApps);
  Local::LineClient client(daemon.Host().Outside("/run/process-manager/status.sock"), Soon());
  std::vector<double> times;
  std::size_t size = 0;
  if (client.Send(R"({"get":"status"})", Soon());
      client.Receive(Soon()).find("\"failed\"") != std::string::npos) {
    throw std::runtime_error("a service has ended");
  }
  for (int i = 0; i < kRounds; ++i) {
    const long long before = MonotonicNs();
    client.Send(R"({"get":"status"})", Soon());
    size = client.Receive(Soon()).size();
    times.push_back(MsBetween(before, MonotonicNs()));
  }
  figures.push_back(
      {"status: answer for 1000, at the client", Percentile(times, 0.5), "ms", {}, 5.0});
  figures.push_back({"status: its size", static_cast<double>(size) / 1024, "KiB", {}, 1024.0});
}

std::vector<AppId> Fill(Memory& memory) {
  std::vector<AppId> apps;
  for (int i = 0; i < kApps; ++i) {
    ProcMgr::Status::AppFacts facts;
    facts.name = "app-" + std::to_string(i);
    facts.path = "/opt/bench/" + facts.name;
    apps.push_back(memory.Mention(std::move(facts)));
    memory.NoteStarted(apps.back(), getpid());
    memory.NoteRunning(apps.back());
  }
  return apps;
}

// All that is done under the lock, and that the engine may have to wait for.
void MeasureLock(std::vector<Figure>& figures) {
  Memory memory;
  (void)Fill(memory);
  std::vector<double> times;
  for (int i = 0; i < kRounds; ++i) {
    const long long before = MonotonicNs();
    const ProcMgr::Status::Picture picture = memory.Copy();
    times.push_back(MsBetween(before, MonotonicNs()));
  }
  figures.push_back({"status: copy of 1000 under the lock", Percentile(times, 0.5), "ms", {}, 0.3});
}

// A process whose applications change one after the other, a thousand times a second.
[[noreturn]] void ChangeForever(const std::string& folder) {
  constexpr long long kPeriodNs = 1'000'000;
  Memory memory;
  const std::vector<AppId> apps = Fill(memory);
  ProcMgr::Status::StatusService service(memory, {});
  if (!service.Start(0, folder)) {
    _exit(1);
  }
  long long next = MonotonicNs();
  for (std::size_t i = 0;; ++i) {
    const AppId app = apps[i % kApps];
    if (i / kApps % 2 == 0) {
      memory.NoteRestarting(app, "bench");
    } else {
      memory.NoteRunning(app);
    }
    next += kPeriodNs;
    ProcMgr::SleepNs(next - MonotonicNs());
  }
}

// The number in the name of the one application that a line tells of.
int AppIn(const std::string& line) {
  const std::string mark = R"("apps":[{"name":"app-)";
  const std::size_t at = line.find(mark);
  if (at == std::string::npos) {
    throw std::runtime_error("a watcher has got something else than a change");
  }
  const std::string rest = line.substr(at + mark.size());
  return ProcMgr::ParseNumber<int>(rest.substr(0, rest.find('"'))).value_or(-1);
}

void WatchChanges(const std::string& socket, int count) {
  Local::LineClient client(socket, Soon());
  client.Send(R"({"watch":true})", Soon());
  (void)client.Receive(Soon());
  int last = AppIn(client.Receive(Soon()));
  for (int i = 1; i < count; ++i) {
    const int app = AppIn(client.Receive(Soon()));
    if (app != (last + 1) % kApps) {
      throw std::runtime_error("a change is lost");
    }
    last = app;
  }
}

void MeasureWatch(std::vector<Figure>& figures) {
  std::string folder = "/tmp/pm-bench-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    throw std::runtime_error("no folder for the socket");
  }
  const pid_t child = fork();
  if (child == 0) {
    ChangeForever(folder);
  }
  const std::string socket = folder + "/status.sock";
  while (access(socket.c_str(), F_OK) != 0 && waitpid(child, nullptr, WNOHANG) == 0) {
    ProcMgr::SleepNs(1'000'000);
  }
  const double idleUs = IdleCpuUsPerSecond(child, 2);
  const double watchedUs =
      CpuUsOf(child, idleUs, [&] { WatchChanges(socket, 1000 * kWatchedSeconds); });
  (void)kill(child, SIGKILL);
  (void)waitpid(child, nullptr, 0);
  (void)unlink(socket.c_str());
  (void)rmdir(folder.c_str());
  figures.push_back({"status: watch of a change a millisecond, of a core",
                     watchedUs / 1e4 / kWatchedSeconds,
                     "%",
                     {},
                     3.0});
}

}  // namespace

std::vector<Figure> MeasureStatus() {
  std::vector<Figure> figures;
  MeasureWatch(figures);  // Before anything makes a thread, for it forks.
  MeasureLock(figures);
  MeasureAnswer(figures);
  return figures;
}

}  // namespace PmBench
