#include "tools/notify/notified_service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

namespace Notify {
namespace {

using ProcMgr::Agent;
using ProcMgr::Result;
using ProcMgr::ServiceState;
using ProcMgr::SteadyNow;

// What is sent to a service to ask something of it.
constexpr std::array kPassedOn = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

// A report that the manager had no room for is tried again after this time.
constexpr std::chrono::milliseconds kRetryPause{200};

// What a command that beats by itself is told: it beats twice in this time, which leaves a beat
// room to be late before the manager calls it lost.
constexpr const char* kBeatPeriodUs = "1000000";

sigset_t WaitedFor() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  (void)sigaddset(&signals, SIGCHLD);
  for (const int number : kPassedOn) {
    (void)sigaddset(&signals, number);
  }
  return signals;
}

int MillisecondsTo(ProcMgr::SteadyTime time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - SteadyNow()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
}

int Fail(const char* step, int error, int status) {
  (void)std::fprintf(stderr, "pm-notify: can't %s: %s\n", step, std::strerror(error));
  return status;
}

}  // namespace

NotifiedService::NotifiedService(Wish wish) : wish_(std::move(wish)) {}

NotifiedService::~NotifiedService() {
  EndCheck();
}

int NotifiedService::Run() {
  // Blocked before the first thread starts, so that they wait for signals_.
  const sigset_t waitedFor = WaitedFor();
  (void)sigprocmask(SIG_BLOCK, &waitedFor, &signalsBefore_);
  signals_.Reset(signalfd(-1, &waitedFor, SFD_CLOEXEC | SFD_NONBLOCK));
  channelUp_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!signals_.IsOpen() || !channelUp_.IsOpen()) {
    return Fail("wait for signals", errno, kCantServe);
  }
  if (const int status = Serve(); status != 0) {
    return status;
  }
  if (const int status = StartCommand(); status != 0) {
    return status;
  }
  Loop();
  EndCheck();
  // A goodbye that was said just before the end.
  TakeNotices();
  ReportIfDue();
  agent_.reset();
  return 0;
}

int NotifiedService::Serve() {
  Agent::Options options;
  options.name = wish_.name;
  options.callbacks.connected = [this] {
    const std::uint64_t one = 1;
    // Can only fail if the loop is to be woken already.
    [[maybe_unused]] const ssize_t written = write(channelUp_.Get(), &one, sizeof(one));
  };
  const Result made = Agent::Create(std::move(options), agent_);
  if (made != Result::kOk) {
    (void)std::fprintf(stderr, "pm-notify: can't serve \"%s\": %s\n", wish_.name.c_str(),
                       ProcMgr::ToText(made));
    return made == Result::kInvalidName ? kUsage : kCantServe;
  }
  const int error = notices_.Open(wish_.name);
  return error == 0 ? 0 : Fail("make the notify socket", error, kCantServe);
}

int NotifiedService::StartCommand() {
  ChildPlan plan;
  plan.command = wish_.command;
  plan.signals = signalsBefore_;
  plan.environment = {{"NOTIFY_SOCKET", notices_.Path()},
                      {"PROC_NAME", wish_.name},
                      {"WATCHDOG_USEC", std::nullopt},
                      {"WATCHDOG_PID", std::nullopt}};
  if (!wish_.beat) {
    plan.environment["WATCHDOG_USEC"] = kBeatPeriodUs;
  }
  command_ = StartChild(plan);
  if (command_ < 0) {
    const int error = -command_;
    return Fail(("run " + wish_.command.front()).c_str(), error,
                error == ENOENT ? kNotFound : kNotExecutable);
  }
  if (wish_.beat) {
    // It can only lack a thread; the manager tells of the missing beats.
    if (const Result beating = agent_->StartHeartbeat(); beating != Result::kOk) {
      (void)std::fprintf(stderr, "pm-notify: can't beat: %s\n", ProcMgr::ToText(beating));
    }
  }
  if (wish_.readyBy == ReadyBy::kNow) {
    SetState(ServiceState::kReady);
  } else if (wish_.readyBy == ReadyBy::kCheck) {
    nextCheck_ = SteadyNow();
  }
  return 0;
}

void NotifiedService::Loop() {
  while (!ended_.has_value()) {
    if (nextCheck_.has_value() && SteadyNow() >= *nextCheck_) {
      StartCheck();
    }
    ReportIfDue();
    AwaitEvent();
    TakeSignals();
    TakeNotices();
    Reap();
  }
}

int NotifiedService::WaitMs() const {
  int wait = nextCheck_.has_value() ? MillisecondsTo(*nextCheck_) : -1;
  if (isReportDue_ && agent_->IsConnected()) {
    wait = wait < 0 ? static_cast<int>(kRetryPause.count())
                    : std::min(wait, static_cast<int>(kRetryPause.count()));
  }
  return wait;
}

void NotifiedService::AwaitEvent() {
  std::array<pollfd, 3> fds = {pollfd{signals_.Get(), POLLIN, 0}, pollfd{notices_.Fd(), POLLIN, 0},
                               pollfd{channelUp_.Get(), POLLIN, 0}};
  // Whatever wakes it, everything is looked at.
  (void)poll(fds.data(), fds.size(), WaitMs());
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = read(channelUp_.Get(), &count, sizeof(count));
}

void NotifiedService::TakeSignals() {
  signalfd_siginfo info{};
  while (read(signals_.Get(), &info, sizeof(info)) == sizeof(info)) {
    // What the terminal sends has reached the command as well. The command isn't reaped before
    // Reap, so its pid is nobody else's.
    const bool isForMe = info.ssi_code != SI_KERNEL;
    if (info.ssi_signo != SIGCHLD && isForMe && !ended_.has_value()) {
      (void)kill(command_, static_cast<int>(info.ssi_signo));
    }
  }
}

void NotifiedService::Reap() {
  int status = 0;
  for (pid_t child = 0; (child = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (child == command_) {
      ended_ = status;
    } else if (child == check_) {
      check_ = -1;
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        SetState(ServiceState::kReady);
      } else {
        nextCheck_ = SteadyNow() + kCheckPause;
      }
    }
  }
}

void NotifiedService::TakeNotices() {
  const Notices said = notices_.Take(command_);
  if (said.beat) {
    // Those that fail show at the manager, and the command goes on.
    (void)agent_->Beat();
    (void)agent_->SendHeartMsg();
  }
  if (said.state == Notices::State::kStopping) {
    EndCheck();
    SetState(ServiceState::kGoingDown);
  } else if (said.state == Notices::State::kReady && wish_.readyBy == ReadyBy::kNotice) {
    SetState(ServiceState::kReady);
  }
}

void NotifiedService::StartCheck() {
  nextCheck_.reset();
  ChildPlan plan;
  plan.command = {"/bin/sh", "-c", wish_.readyWhen};
  plan.signals = signalsBefore_;
  // What the check says is not what the command says.
  plan.environment = {{"NOTIFY_SOCKET", std::nullopt},
                      {"PROC_NAME", wish_.name},
                      {"MAINPID", std::to_string(command_)}};
  plan.ownGroup = true;
  check_ = StartChild(plan);
  if (check_ < 0) {
    (void)std::fprintf(stderr, "pm-notify: can't run the readiness check: %s\n",
                       std::strerror(-check_));
    check_ = -1;
    nextCheck_ = SteadyNow() + kCheckPause;
  }
}

void NotifiedService::EndCheck() {
  nextCheck_.reset();
  if (check_ > 0) {
    (void)kill(-check_, SIGKILL);
    (void)waitpid(check_, nullptr, 0);
    check_ = -1;
  }
}

void NotifiedService::SetState(ServiceState state) {
  state_ = state;
  isReportDue_ = true;
}

// Without a channel it stays due until there is one: the loop must not wait, for it passes signals
// on. Only a manager that doesn't read makes it, for two seconds.
void NotifiedService::ReportIfDue() {
  if (isReportDue_) {
    isReportDue_ = agent_->ReportState(*state_) != Result::kOk;
  }
}

}  // namespace Notify
