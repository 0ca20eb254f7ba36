#include "sandbox/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "base/pid_fd.h"
#include "base/unique_fd.h"
#include "sandbox/system_error.h"

namespace PmSandbox {
namespace {

// What the child needs, laid out before the fork: this process has threads, so between fork and
// exec only async-signal-safe calls are allowed.
struct Launch {
  const Sandbox& sandbox;
  int input;
  int output;
  std::vector<char*> argv;
  std::vector<char*> envp;
  void (*before)();
};

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

void ResetSignals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    (void)::signal(signal, SIG_DFL);
  }
  sigset_t none;
  (void)sigemptyset(&none);
  (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void RunChild(const Launch& launch) {
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  ResetSignals();
  if (dup2(launch.input, 0) == 0 && dup2(launch.output, 1) == 1 && dup2(launch.output, 2) == 2 &&
      close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0 && launch.sandbox.JoinInChild()) {
    if (launch.before != nullptr) {
      launch.before();
    }
    (void)execve(launch.argv[0], launch.argv.data(), launch.envp.data());
  }
  const char* const reason = strerrordesc_np(errno);
  constexpr std::string_view kWhat = "the program can't be started in the sandbox: ";
  (void)!write(2, kWhat.data(), kWhat.size());
  (void)!write(2, reason, __builtin_strlen(reason));
  _exit(127);
}

std::vector<std::string> Environment(const std::map<std::string, std::string>& given) {
  std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
  for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* const value = std::getenv(name); value != nullptr) {
      environment.push_back(std::string(name).append("=").append(value));
    }
  }
  for (const auto& [name, value] : given) {
    environment.push_back(std::string(name).append("=").append(value));
  }
  return environment;
}

}  // namespace

Process::Process(const Sandbox& sandbox, const std::string& path,
                 const std::vector<std::string>& arguments, const Options& options)
    : sandbox_(sandbox), outputPath_(std::string(Sandbox::kDir) + "/" + options.name + ".out") {
  sandbox.WriteFile(outputPath_, "", 0666);
  const ProcMgr::UniqueFd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const ProcMgr::UniqueFd output(
      open(sandbox.Outside(outputPath_).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  CheckStep(input.IsOpen() && output.IsOpen(), "open the descriptors of " + path);
  std::vector<std::string> texts = arguments;
  texts.insert(texts.begin(), path);
  std::vector<std::string> environment = Environment(options.environment);
  const Launch launch{sandbox,         input.Get(),           output.Get(),
                      Pointers(texts), Pointers(environment), options.before};
  pid_ = fork();
  CheckStep(pid_ >= 0, "fork");
  if (pid_ == 0) {
    RunChild(launch);
  }
}

Process::~Process() {
  if (!status_.has_value()) {
    (void)kill(pid_, SIGKILL);
    Reap(true);
  }
}

void Process::Reap(bool wait) {
  int status = 0;
  pid_t got = -1;
  do {
    got = waitpid(pid_, &status, wait ? 0 : WNOHANG);
  } while (got < 0 && errno == EINTR);
  if (got == pid_) {
    status_ = status;
  } else if (got < 0) {
    // Somebody else has reaped it, Sandbox::KillAll perhaps.
    status_ = SIGKILL;
  }
}

bool Process::IsRunning() {
  if (!status_.has_value()) {
    Reap(false);
  }
  return !status_.has_value();
}

void Process::Signal(int signal) const {
  CheckStep(!status_.has_value() && kill(pid_, signal) == 0, "signal the program");
}

std::optional<int> Process::WaitExit(std::chrono::milliseconds patience) {
  if (IsRunning()) {
    const ProcMgr::UniqueFd process = ProcMgr::OpenPidFd(pid_);
    if (process.IsOpen() && ProcMgr::AwaitExit(process.Get(), patience)) {
      Reap(true);
    }
  }
  return status_;
}

std::string Process::Output() const {
  return sandbox_.ReadFile(outputPath_);
}

std::string Process::SanitizerReport() const {
  const std::string output = Output();
  for (const char* mark : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer",
                           "ERROR: LeakSanitizer", "runtime error:"}) {
    if (const std::size_t at = output.find(mark); at != std::string::npos) {
      return output.substr(at);
    }
  }
  return {};
}

}  // namespace PmSandbox
