#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/app_state.h"
#include "base/sleep.h"
#include "base/unique_fd.h"
#include "sandbox/process_table.h"
#include "sandbox/system_error.h"
#include "torture/preload.h"
#include "torture/require.h"
#include "torture/runs.h"
#include "torture/stage.h"
#include "torture/wall_clock.h"

namespace PmTorture {
namespace {

using PmSandbox::CheckStep;
using PmSandbox::Process;
using Ms = std::chrono::duration<double, std::milli>;

constexpr std::int64_t kYearS = 365L * 24 * 3600;
constexpr std::size_t kMostRestarts = 5;  // Within a minute.
constexpr std::chrono::milliseconds kTermTimeOut{1500};
constexpr std::chrono::milliseconds kSilence{2000};    // Of a heart, until it is lost.
constexpr std::chrono::milliseconds kBeatPeriod{500};  // Of the library's.
constexpr std::chrono::milliseconds kSuspended{3000};
// What a busy machine may add to a time-out.
const Ms kSlack{2000.0 * PmSandbox::PatienceFactor()};

Ms Since(ProcMgr::SteadyTime begin) {
  return ProcMgr::SteadyNow() - begin;
}

// What is done to the clocks from before the boot on. The first kind does nothing.
class Disturbance {
 public:
  Disturbance() = default;
  virtual ~Disturbance() = default;
  Disturbance(const Disturbance&) = delete;
  Disturbance& operator=(const Disturbance&) = delete;

  // How the manager is started.
  [[nodiscard]] virtual Process::Options Manager() const {
    return {{}, "process-manager", nullptr};
  }
  // What the environment of a service holds besides, as Stage::Beating takes it.
  [[nodiscard]] virtual std::string Environment() const { return {}; }
  // In the middle of a term time-out. Yields for how long nobody could do anything.
  virtual Ms Strike(Stage& /*stage*/) { return {}; }
  // Throws if the clocks weren't disturbed.
  virtual void End() {}
};

// The wall clock of the manager and of a service jumps all the time.
class WallSteps : public Disturbance {
 public:
  WallSteps() : stepper_([this] { Step(); }) {}
  ~WallSteps() override {
    isOver_ = true;
    stepper_.join();
  }

  [[nodiscard]] Process::Options Manager() const override {
    return {preload_.Environment(), "process-manager", nullptr};
  }
  [[nodiscard]] std::string Environment() const override {
    std::string text;
    for (const auto& [key, value] : preload_.Environment()) {
      text += ", ";
      text += key;
      text += ": ";
      text += value;
    }
    return text;
  }
  void End() override {
    const auto looks = static_cast<unsigned long long>(preload_.Shared().looks.load());
    const auto trusts = static_cast<unsigned long long>(preload_.Shared().trusts.load());
    std::printf("clock: %d steps, a wall clock that was read %llu times and relied on %llu times\n",
                steps_.load(), looks, trusts);
    Require(looks > 0, "somebody reads the wall clock that is stepped");
    Require(trusts == 0, "nobody waits for a time of the wall clock");
  }

 private:
  void Step() {
    constexpr std::int64_t kBetweenNs = 5'000'000;
    for (; !isOver_; ++steps_) {
      preload_.Shared().aheadS = steps_ % 2 == 0 ? kYearS : -kYearS;
      ProcMgr::SleepNs(kBetweenNs);
    }
  }

  const Preload<WallClock> preload_{PmSandbox::ProgramPath("libpm-wall-clock.so"),
                                    kWallClockVariable};
  std::atomic<bool> isOver_ = false;
  std::atomic<int> steps_ = 0;
  std::thread stepper_;
};

// A time namespace in which the monotonic clock is ahead of this one's by so many seconds. Its own
// maker isn't in it.
ProcMgr::UniqueFd MakeTimeNamespace(std::int64_t aheadS) {
  const std::string ahead = std::to_string(aheadS) + " 0\n";
  const std::string offsets = "monotonic " + ahead + "boottime " + ahead;
  // What it unshares counts for the thread's children, so the thread is to have none.
  return std::async(std::launch::async,
                    [&offsets] {
                      const std::string self = "/proc/" + std::to_string(gettid());
                      CheckStep(unshare(CLONE_NEWTIME) == 0, "make a time namespace");
                      const ProcMgr::UniqueFd file(
                          open((self + "/timens_offsets").c_str(), O_WRONLY | O_CLOEXEC));
                      CheckStep(
                          write(file.Get(), offsets.data(), offsets.size()) == std::ssize(offsets),
                          "set its clocks");
                      return ProcMgr::UniqueFd(
                          open((self + "/ns/time_for_children").c_str(), O_RDONLY | O_CLOEXEC));
                    })
      .get();
}

// The manager and its services live in a time namespace, in which the monotonic clock shows
// something else than here: about `showsS` seconds.
class OtherTime : public Disturbance {
 public:
  explicit OtherTime(std::int64_t showsS) {
    const auto hereS =
        std::chrono::duration_cast<std::chrono::seconds>(ProcMgr::SteadyNow().time_since_epoch());
    made = MakeTimeNamespace(showsS - hereS.count());
  }
  [[nodiscard]] Process::Options Manager() const override {
    return {{}, "process-manager", [] {
              if (setns(made.Get(), CLONE_NEWTIME) != 0) {
                _exit(126);
              }
            }};
  }
  Ms Strike(Stage& stage) override {
    const auto timeOf = [](const std::string& pid) {
      return std::filesystem::read_symlink("/proc/" + pid + "/ns/time");
    };
    Require(timeOf(std::to_string(stage.Manager().Pid())) != timeOf("self"),
            "the manager has a time of its own");
    return {};
  }

 private:
  // The child, which is a copy of this thread, can't be given anything.
  static thread_local ProcMgr::UniqueFd made;
};
thread_local ProcMgr::UniqueFd OtherTime::made;

// Everything stands still for some seconds and goes on, the manager first.
class Suspend : public Disturbance {
 public:
  Ms Strike(Stage& stage) override {
    std::vector<pid_t> pids = stage.Host().Processes();
    std::iter_swap(pids.begin(), std::find(pids.begin(), pids.end(), stage.Manager().Pid()));
    const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
    for (const int signal : {SIGSTOP, SIGCONT}) {
      for (const pid_t pid : pids) {
        CheckStep(kill(pid, signal) == 0, "suspend");
      }
      if (signal == SIGSTOP) {
        const bool isStill = PmSandbox::Eventually([&] {
          return std::all_of(pids.begin(), pids.end(),
                             [](pid_t pid) { return PmSandbox::ReadStat(pid).state == 'T'; });
        });
        Require(isStill, "everything stands still");
        ProcMgr::SleepNs(std::chrono::nanoseconds(kSuspended).count());
      }
    }
    return std::min<Ms>(Since(begin), kSuspended);
  }
};

// What becomes of the time-outs.
struct Look {
  Ms termTimeOut{};          // From a request to end to the kill, without the time of a suspend.
  std::size_t restarts = 0;  // That a service gets before it is given up.
  std::size_t lost = 0;      // Hearts that are called lost, though they beat.
  Ms silence{};              // From a heart's stop until it is called lost.
  Ms stop{};                 // An orderly one of a manager with such an application.
};

void CountRestarts(Stage& stage, Look& look) {
  const std::string name = "limited";
  pid_t pid = stage.AwaitStarted(name);
  for (;;) {
    const std::size_t before = stage.Log().Lines().size();
    CheckStep(kill(pid, SIGKILL) == 0, "kill " + name);
    const auto isOver = stage.Log().WaitFor(
        [&](const PmSandbox::LogLine& line) {
          return line.text.find("appName=" + name + ", binPath=") != std::string::npos ||
                 line.text.find("Process=" + name + " has restart") != std::string::npos;
        },
        before);
    Require(isOver.has_value(), name + " is started again, or given up");
    if (stage.Log().At(*isOver).text.find("has restart") != std::string::npos) {
      return;
    }
    pid = stage.AwaitStarted(name, before);
    ++look.restarts;
    Require(look.restarts <= kMostRestarts, "a service is started again without an end");
  }
}

void StopHeart(Stage& stage, Look& look) {
  const pid_t pid = stage.AwaitStarted("heart");
  const std::string news = "(app=heart,pid=" + std::to_string(pid) + ",status=";
  look.lost = stage.Log().Count("status=lost");
  const std::size_t before = stage.Log().Lines().size();
  const ProcMgr::SteadyTime begin = ProcMgr::SteadyNow();
  CheckStep(kill(pid, SIGSTOP) == 0, "stop a heart");
  Require(stage.Log().WaitFor(news + "lost", before).has_value(), "a heart's stop is noticed");
  look.silence = Since(begin);
  CheckStep(kill(pid, SIGCONT) == 0, "let a heart go on");
  Require(stage.Log().WaitFor(news + "recovery", before).has_value(), "so is its return");
}

// Asks by `ask` for the end of what doesn't end, and is disturbed in the middle of the time-out.
template <typename Ask, typename Ended>
Ms TimeOut(Stage& stage, Disturbance& disturbance, Ask ask, Ended hasEnded) {
  const std::size_t before = stage.Log().Lines().size();
  const ProcMgr::SteadyTime asked = ProcMgr::SteadyNow();
  ask();
  Require(stage.Log().WaitFor("SendSignal: 15 to app=stubborn", before).has_value(),
          "it is asked to end");
  ProcMgr::SleepNs(std::chrono::nanoseconds(kTermTimeOut / 2).count());
  const Ms still = disturbance.Strike(stage);
  Require(hasEnded(), "it is ended when its time is up");
  return Since(asked) - still;
}

void StartStubborn(PmSandbox::AgentPeer& agent) {
  Require(agent.StartApps({{"stubborn", {}, {}}}), "a request is taken");
  const auto started = agent.NextReport();
  Require(started.has_value(), "the application is started");
  Require(PmSandbox::Eventually([&] { return PmSandbox::Ignores(started->pid, SIGTERM); }),
          "it is stubborn");
}

Look LookAtIt(Disturbance& disturbance) {
  Stage stage(1,
              {Stage::Beating("heart", disturbance.Environment()),
               Stage::Sleeper("limited", {{"restart", "on-failure"}, {"dependList", "[iammgr]"}})},
              {Stage::Stubborn("stubborn", kTermTimeOut)}, disturbance.Manager());
  PmSandbox::AgentPeer& agent = stage.Agents()[0];
  StartStubborn(agent);
  Look look;
  const auto ended = static_cast<int>(ProcMgr::ReportAppStateType::TERMINATED_NORMAL_EXIT);
  look.termTimeOut = TimeOut(
      stage, disturbance, [&] { Require(agent.TermApps({"stubborn"}), "a request is taken"); },
      [&] {
        CountRestarts(stage, look);
        return agent.NextReports(1) == std::vector{"stubborn " + std::to_string(ended)};
      });
  StopHeart(stage, look);
  StartStubborn(agent);
  look.stop = TimeOut(
      stage, disturbance, [&] { stage.Manager().Signal(SIGRTMIN + 3); },
      [&] { return stage.Manager().WaitExit().has_value(); });
  disturbance.End();
  return look;
}

void Judge(const Look& look, const std::string& line) {
  const auto require = [&](bool holds, const char* what) { Require(holds, line + what); };
  require(look.termTimeOut >= kTermTimeOut, "no application gets less than its term time-out");
  require(look.termTimeOut <= kTermTimeOut + kSlack, "nor much more");
  require(look.stop >= kTermTimeOut, "nor in an orderly stop");
  require(look.stop <= kTermTimeOut + kSlack, "which takes no longer for it");
  require(look.restarts == kMostRestarts, "the restart window neither shrinks nor grows");
  require(look.lost == 0 || PmSandbox::MayHeartsBeLate(), "no heart that beats is called lost");
  require(look.silence >= kSilence - kBeatPeriod, "no heart is called lost before its time");
  require(look.silence <= kSilence + kSlack, "nor long after it");
}

struct Kind {
  const char* name;
  std::unique_ptr<Disturbance> (*make)();
};

constexpr Kind kKinds[] = {
    {"undisturbed", [] { return std::make_unique<Disturbance>(); }},
// A sanitizer's run time doesn't stand a library before it.
#ifndef PM_SANITIZED
    {"wall clock steps of a year",
     []() -> std::unique_ptr<Disturbance> { return std::make_unique<WallSteps>(); }},
#endif
    {"monotonic clock at a second",
     []() -> std::unique_ptr<Disturbance> { return std::make_unique<OtherTime>(1); }},
    {"monotonic clock at 100 years",
     []() -> std::unique_ptr<Disturbance> { return std::make_unique<OtherTime>(100 * kYearS); }},
    {"all stopped for 3 s",
     []() -> std::unique_ptr<Disturbance> { return std::make_unique<Suspend>(); }},
};

// Throws Broken, with what was seen in its message.
std::string Report(const Kind& kind) {
  const std::unique_ptr<Disturbance> disturbance = kind.make();
  const Look look = LookAtIt(*disturbance);
  std::array<char, 160> line{};
  (void)std::snprintf(
      line.data(), line.size(), "clock: %-30s %12.0f ms %9zu %12zu %9.0f ms %9.0f ms\n", kind.name,
      look.termTimeOut.count(), look.restarts, look.lost, look.silence.count(), look.stop.count());
  Judge(look, line.data());
  return line.data();
}

}  // namespace

void RunClock(const Options&) {
  std::printf("clock: %-30s %15s %9s %12s %12s %12s\n", "", "term time-out", "restarts",
              "false alarms", "heart lost", "orderly stop");
  // They wait nearly all the time, so they may wait beside each other.
  std::vector<std::future<std::string>> reports;
  for (const Kind& kind : kKinds) {
    reports.push_back(std::async(std::launch::async, &Report, std::cref(kind)));
  }
  for (std::future<std::string>& report : reports) {
    std::printf("%s", report.get().c_str());
    (void)std::fflush(stdout);
  }
}

}  // namespace PmTorture
