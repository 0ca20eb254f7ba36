// Refusing to start a binary that has been changed.
//
// docs/config-bin-hash.md describes the file of digests. The table is filled once on the boot
// thread before the first start and only read afterwards.
//
// A digest takes as long as the file is large, and every start needs one of its own. So that nobody
// waits for it under a lock that others need, a verdict can be worked out beforehand: each counts
// for one start, and only for the file as it was looked at.
#ifndef HOST_INTEGRITY_PROTECT_H
#define HOST_INTEGRITY_PROTECT_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "base/crew.h"
#include "base/file_state.h"
#include "base/mutex.h"

namespace ProcMgr {

inline constexpr const char* kBinHashFile = "/etc/zur/base-plat/process-manager/bin_hash.cfg";

class IntegrityProtect {
 public:
  static IntegrityProtect& Instance();

  // Reads the table from the file at `path`. Without the file nothing is checked; a malformed line
  // is passed over with a warning. Boot thread.
  void LoadHashCfg(const std::string& path = kBinHashFile);
  // The same on a text in memory.
  void ParseHashCfg(std::string_view text);

  // False if the table lists the file name of `binPath` with another SHA-256 digest than that of
  // the file, or if its digest can't be told, or if the path has no directory. A name that isn't
  // listed costs one lookup; for a listed one a verdict that has been worked out is used up, and
  // without one a shell pipeline runs and is waited for, for a minute at most. Any thread, several
  // at once.
  [[nodiscard]] bool Check(const std::string& binPath) EXCLUDES(mutex_);

  // Whether any binary is listed.
  [[nodiscard]] bool HasEntries() const { return !binHashMap_.empty(); }

  // Has each verdict that is worked out told by a call. Boot thread, once.
  void TellVerdicts(std::function<void()> tell) { tell_ = std::move(tell); }

  // Works out what Check will need, if anything. Takes as long as Check without it.
  void WorkOut(const std::string& binPath) EXCLUDES(mutex_);
  // Whether Check would end at once.
  [[nodiscard]] bool IsAtHand(const std::string& binPath) EXCLUDES(mutex_);
  // The same as WorkOut aside, without waiting: true if Check has what it needs, or can't get it
  // this way.
  [[nodiscard]] bool IsWorkedOut(const std::string& binPath) EXCLUDES(mutex_);

 private:
  struct Verdict {
    FileState file;
    bool isUnderWay = false;
    bool passes = false;
  };

  using Verdicts = std::map<std::string, Verdict>;  // By path.

  // What is left to be done for a verdict.
  struct Task {
    const std::string* wanted = nullptr;  // The digest; null if there is nothing to be done,
    FileState file;
    bool isUnderWay = false;  // which can mean that somebody is at it.
  };

  [[nodiscard]] const std::string* WantedDigest(const std::string& binPath) const;
  [[nodiscard]] static bool HasWantedDigest(const std::string& binPath, const std::string& wanted);
  // The verdict on the file as it is; the end if there is none, or not yet.
  [[nodiscard]] Verdicts::iterator FindVerdict(const std::string& binPath,
                                               const std::optional<FileState>& file)
      REQUIRES(mutex_);
  [[nodiscard]] std::optional<bool> TakeVerdict(const std::string& binPath) EXCLUDES(mutex_);
  [[nodiscard]] Task Begin(const std::string& binPath) EXCLUDES(mutex_);
  void Finish(const std::string& binPath, const Task& task) EXCLUDES(mutex_);
  void Keep(const std::string& binPath, const Task& task, bool passes) EXCLUDES(mutex_);
  [[nodiscard]] bool IsUnderWay(const std::string& binPath) REQUIRES(mutex_);

  // Takes one line, cut off behind the longest that is legal, and its whole length.
  void ParseHashLine(const std::string& line, std::size_t length);

  // File name to digest, 64 lower-case hexadecimal digits if it is to match.
  std::unordered_map<std::string, std::string> binHashMap_;

  std::function<void()> tell_ = [] {};

  // A leaf.
  Mutex mutex_;
  CondVar finished_;
  Verdicts verdicts_ GUARDED_BY(mutex_);
  // A few at a time, so that services that die together don't take all cores from the others.
  Crew crew_{2};
};

}  // namespace ProcMgr

#endif  // HOST_INTEGRITY_PROTECT_H
