#include "host/integrity_protect.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <optional>
#include <system_error>

#include "base/immortal.h"
#include "base/may_wait.h"
#include "base/sleep.h"
#include "base/small_file.h"
#include "base/steady_time.h"
#include "base/text_lines.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

constexpr std::size_t kMaxLine = 255;
constexpr std::size_t kDigestLength = 64;
constexpr int kMaxAttempts = 5;
constexpr std::int64_t kPauseNs = 1'000'000;
constexpr std::chrono::seconds kMaxTime{60};

// The name at the end of a path, trailing slashes left aside; none for a path without a directory.
std::optional<std::string> FileName(const std::string& path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string::npos || last == 0) {
    return std::nullopt;
  }
  const std::size_t slash = path.rfind('/', last);
  if (slash == std::string::npos) {
    return std::nullopt;
  }
  return path.substr(slash + 1, last - slash);
}

// True if a shell takes `path` as one word that stands for itself. Everything that isn't known to
// be harmless counts as dangerous, and a leading '-' would be an option.
bool IsPlainWord(std::string_view path) {
  return !path.starts_with('-') && std::all_of(path.begin(), path.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("/._-+@%:,=").find(c) != std::string_view::npos;
  });
}

// Runs the command and takes the first line of its output, of 64 characters at most. None if it
// can't be run or says nothing.
std::optional<std::string> RunDigest(const std::string& command, const std::string& binPath) {
  MayWait("sha256sum");
  // "e": another thread that forks at this moment must not hand the stream to an application.
  std::FILE* const stream = popen(command.c_str(), "re");
  if (stream == nullptr) {
    LogError("PROCMGR: IntegrityProtect popen for appPath=%s failed, errno=%d", binPath.c_str(),
             errno);
    SleepNs(kPauseNs);
    return std::nullopt;
  }
  std::array<char, kDigestLength + 1> digest{};
  const bool hasOutput =
      std::fgets(digest.data(), static_cast<int>(digest.size()), stream) != nullptr;
  // The manager's reaper may have taken the child before pclose could, so its result says nothing.
  (void)pclose(stream);
  return hasOutput ? std::optional<std::string>(digest.data()) : std::nullopt;
}

}  // namespace

IntegrityProtect& IntegrityProtect::Instance() {
  return Immortal<IntegrityProtect>();
}

void IntegrityProtect::LoadHashCfg(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) {
    LogWarning("PROCMGR: IntegrityProtect hash config file=%s is not exist", path.c_str());
    return;
  }
  // Of any size: a table that is too large to be read would let every binary through.
  const auto take = [this](std::string_view line, std::size_t length) {
    ParseHashLine(std::string(line), length);
    return true;
  };
  if (ReadLines(path, kMaxLine, take) != 0) {
    LogError("PROCMGR: IntegrityProtect hash config file=%s open failed", path.c_str());
  }
}

void IntegrityProtect::ParseHashCfg(std::string_view text) {
  while (!text.empty()) {
    const std::string line(TakeLine(text));
    ParseHashLine(line.substr(0, kMaxLine), line.size());
  }
}

void IntegrityProtect::ParseHashLine(const std::string& line, std::size_t length) {
  if (line.empty()) {
    return;
  }
  if (length > kMaxLine) {
    LogWarning("PROCMGR: hash config line of %zu characters is too long, begins with=%s", length,
               line.c_str());
    return;
  }
  const std::size_t equals = line.find('=');
  if (equals == std::string::npos || equals == 0 || equals == line.size() - 1) {
    LogWarning("PROCMGR: hash config string=%s format is false", line.c_str());
    return;
  }
  binHashMap_.insert_or_assign(line.substr(0, equals), line.substr(equals + 1));
}

bool IntegrityProtect::Check(const std::string& binPath) {
  if (binPath.empty()) {
    LogError("PROCMGR: IntegrityProtect appName is empty");
    return false;
  }
  const std::optional<std::string> name = FileName(binPath);
  if (!name) {
    LogError("PROCMGR: IntegrityProtect appPath=%s is illegal", binPath.c_str());
    return false;
  }
  const auto entry = binHashMap_.find(*name);
  if (entry == binHashMap_.end()) {
    return true;
  }
  if (!IsPlainWord(binPath)) {
    LogError("PROCMGR: IntegrityProtect appPath=%s has characters that a shell interprets",
             binPath.c_str());
    return false;
  }
  if (const std::optional<bool> verdict = TakeVerdict(binPath)) {
    return *verdict;
  }
  return HasWantedDigest(binPath, entry->second);
}

IntegrityProtect::Verdicts::iterator IntegrityProtect::FindVerdict(
    const std::string& binPath, const std::optional<FileState>& file) {
  const auto verdict = verdicts_.find(binPath);
  const bool isKnown = verdict != verdicts_.end() && !verdict->second.isUnderWay;
  return isKnown && verdict->second.file == file ? verdict : verdicts_.end();
}

std::optional<bool> IntegrityProtect::TakeVerdict(const std::string& binPath) {
  const std::optional<FileState> file = StateOfFile(binPath.c_str());
  const MutexLock lock(mutex_);
  const auto verdict = FindVerdict(binPath, file);
  if (verdict == verdicts_.end()) {
    return std::nullopt;
  }
  const bool passes = verdict->second.passes;
  verdicts_.erase(verdict);
  return passes;
}

bool IntegrityProtect::HasWantedDigest(const std::string& binPath, const std::string& wanted) {
  const std::optional<FileState> file = StateOfFile(binPath.c_str());
  // Nobody ever writes into a fifo that is named as a program.
  const bool isReadable = !file || file->IsRegular();
  const SteadyTime deadline = SteadyNow() + kMaxTime;
  const std::string command =
      "timeout " + std::to_string(kMaxTime.count()) + " sha256sum " + binPath + "|cut -d' ' -f1";
  for (int attempt = 0; isReadable && attempt < kMaxAttempts && SteadyNow() < deadline; ++attempt) {
    if (const std::optional<std::string> digest = RunDigest(command, binPath)) {
      return wanted == *digest;
    }
  }
  LogError("PROCMGR: IntegrityProtect sha256sum failed for app=%s", binPath.c_str());
  return false;
}

const std::string* IntegrityProtect::WantedDigest(const std::string& binPath) const {
  const std::optional<std::string> name = FileName(binPath);
  const auto entry = name ? binHashMap_.find(*name) : binHashMap_.end();
  return entry == binHashMap_.end() || !IsPlainWord(binPath) ? nullptr : &entry->second;
}

// Files that can't be started are refused, and told, by what comes before the digest in a start.
IntegrityProtect::Task IntegrityProtect::Begin(const std::string& binPath) {
  const std::string* const wanted = WantedDigest(binPath);
  const std::optional<FileState> file =
      wanted == nullptr ? std::nullopt : StateOfFile(binPath.c_str());
  if (!file || !file->IsRegular()) {
    return {};
  }
  const MutexLock lock(mutex_);
  const auto [verdict, isNew] = verdicts_.try_emplace(binPath);
  if (!isNew && verdict->second.file == *file) {
    return {nullptr, {}, verdict->second.isUnderWay};
  }
  verdict->second = {*file, true, false};
  return {wanted, *file, true};
}

void IntegrityProtect::Finish(const std::string& binPath, const Task& task) {
  std::optional<bool> passes;
  try {
    passes = HasWantedDigest(binPath, *task.wanted);
  } catch (const std::exception& error) {
    LogError("PROCMGR: Caught exception=%s", error.what());
  }
  Keep(binPath, task, passes.value_or(false));
  tell_();
}

void IntegrityProtect::Keep(const std::string& binPath, const Task& task, bool passes) {
  const MutexLock lock(mutex_);
  const auto verdict = verdicts_.find(binPath);
  // Of a file that has changed meanwhile somebody else has begun to work it out.
  if (verdict != verdicts_.end() && verdict->second.file == task.file) {
    verdict->second.isUnderWay = false;
    verdict->second.passes = passes;
  }
  finished_.NotifyAll();
}

bool IntegrityProtect::IsUnderWay(const std::string& binPath) {
  const auto verdict = verdicts_.find(binPath);
  return verdict != verdicts_.end() && verdict->second.isUnderWay;
}

void IntegrityProtect::WorkOut(const std::string& binPath) {
  MayWait("WorkOut");
  if (const Task task = Begin(binPath); task.wanted != nullptr) {
    Finish(binPath, task);
    return;
  }
  const MutexLock lock(mutex_);
  while (IsUnderWay(binPath)) {
    finished_.Wait(mutex_);
  }
}

bool IntegrityProtect::IsAtHand(const std::string& binPath) {
  if (WantedDigest(binPath) == nullptr) {
    return true;
  }
  const std::optional<FileState> file = StateOfFile(binPath.c_str());
  const MutexLock lock(mutex_);
  return !file || !file->IsRegular() || FindVerdict(binPath, file) != verdicts_.end();
}

bool IntegrityProtect::IsWorkedOut(const std::string& binPath) {
  const Task task = Begin(binPath);
  if (task.wanted == nullptr) {
    return !task.isUnderWay;
  }
  try {
    crew_.Run([this, binPath, task] { Finish(binPath, task); });
    return false;
  } catch (const std::system_error&) {
    const MutexLock lock(mutex_);
    verdicts_.erase(binPath);
    return true;  // There is no thread for it.
  }
}

}  // namespace ProcMgr
