#include "sandbox/process_table.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "base/pid_fd.h"
#include "base/small_file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "sandbox/wait.h"

namespace PmSandbox {
namespace {

constexpr std::size_t kProcFileLimit = std::size_t{1} << 20;

std::string ProcFile(pid_t pid, const char* name) {
  std::string text;
  const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
  // A process that has gone reads as empty, which is what the callers take it for.
  (void)ProcMgr::ReadSmallFile(path, kProcFileLimit, text);
  return text;
}

// The numbers among the names of a folder, rising; empty if the folder has gone.
std::vector<pid_t> NumberedEntries(const std::string& folder) {
  std::vector<pid_t> numbers;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator(folder, error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    const auto number = ProcMgr::ParseNumber<pid_t>(it->path().filename().native());
    if (number.has_value()) {
      numbers.push_back(*number);
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

std::vector<pid_t> AllProcesses() {
  return NumberedEntries("/proc");
}

std::vector<pid_t> Children(pid_t parent, bool zombies) {
  std::vector<pid_t> children;
  for (const pid_t pid : AllProcesses()) {
    const ProcessStat stat = ReadStat(pid);
    if (stat.pid != 0 && stat.parent == parent && (stat.state == 'Z') == zombies) {
      children.push_back(pid);
    }
  }
  return children;
}

ProcessStat ReadStat(pid_t pid) {
  const std::string text = ProcFile(pid, "stat");
  // The name, in brackets, is the only field that may hold blanks and brackets of its own.
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos) {
    return {};
  }
  ProcessStat stat;
  stat.pid = pid;
  std::istringstream fields(text.substr(close + 1));
  fields >> stat.state >> stat.parent;
  constexpr int kFieldsBetweenParentAndStart = 17;
  std::string skipped;
  for (int i = 0; i < kFieldsBetweenParentAndStart; ++i) {
    fields >> skipped;
  }
  fields >> stat.startTicks;
  return stat;
}

std::vector<std::string> OpenDescriptors(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
  std::vector<std::string> descriptors;
  for (const pid_t number : NumberedEntries(folder)) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(folder + "/" + std::to_string(number), error);
    if (!error) {
      descriptors.push_back(std::to_string(number) + " -> " + target.native());
    }
  }
  return descriptors;
}

std::vector<pid_t> Threads(pid_t pid) {
  return NumberedEntries("/proc/" + std::to_string(pid) + "/task");
}

std::string StatusField(pid_t pid, const std::string& key) {
  std::istringstream lines(ProcFile(pid, "status"));
  const std::string start = key + ":\t";
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(start)) {
      return line.substr(start.size());
    }
  }
  return {};
}

bool Ignores(pid_t pid, int signal) {
  const auto mask = ProcMgr::ParseNumber<std::uint64_t>(StatusField(pid, "SigIgn"), 16).value_or(0);
  return ((mask >> (signal - 1)) & 1U) != 0;
}

bool Kill(pid_t pid, int signal) {
  return pid > 0 && kill(pid, signal) == 0;
}

bool KillAndAwait(pid_t pid) {
  // The descriptor names this very process, so a pid that is used again can't be hit.
  const ProcMgr::UniqueFd process = ProcMgr::OpenPidFd(pid);
  if (!process.IsOpen()) {
    return errno == ESRCH;
  }
  ProcMgr::SignalPidFd(process.Get(), SIGKILL);
  const bool gone = ProcMgr::AwaitExit(process.Get(), kPatience);
  // ECHILD just says that the process isn't ours to reap.
  (void)waitpid(pid, nullptr, WNOHANG);
  return gone;
}

}  // namespace PmSandbox
