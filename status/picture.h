// What the manager tells about its applications: the words, and the pictures in which they travel
// from the memory to the text. docs/status.md tells what each means to a reader.
#ifndef STATUS_PICTURE_H
#define STATUS_PICTURE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/restart_window.h"
#include "base/steady_time.h"

namespace ProcMgr::Status {

// The number of an application in the memory; 0 for none.
using AppId = std::uint32_t;

using WallTime = std::chrono::system_clock::time_point;

enum class AppKind : std::uint8_t { kBase, kGeneral, kSelf };

enum class AppState : std::uint8_t {
  kWaiting,
  kLeftOut,
  kBlocked,
  kRefused,
  kStarting,
  kRunning,
  kStopping,
  kRestarting,
  kEnded,
  kFailed,
  kGivenUp,
};

enum class CauseKind : std::uint8_t {
  kDependency,
  kMissing,
  kPermission,
  kArgument,
  kDigest,
  kCore,
  kFork,
  kExec,
  kExit,
  kSignal,
  kLimit,
  kRequest,
  kTurn,
  kReport,
  kOption,
};

// The manifest's word for restarts.
enum class RestartPolicy : std::uint8_t { kNo, kOnFailure, kOnForever, kOnUntilSucceed };

enum class ExitKind : std::uint8_t { kExit, kSignal, kCore, kExec };

// What the boot spends its time on. The first four are the manager's own; the others belong to
// one application's first start.
enum class Phase : std::uint8_t {
  kInit,
  kPriority,
  kContinue,
  kPause,
  kChecks,
  kFork,
  kReady,
  kOpen,
};

// The words of the text.
[[nodiscard]] const char* WordOf(AppKind kind);
[[nodiscard]] const char* WordOf(AppState state);
[[nodiscard]] const char* WordOf(CauseKind cause);
[[nodiscard]] const char* WordOf(RestartPolicy policy);
[[nodiscard]] const char* WordOf(ExitKind exit);
[[nodiscard]] const char* WordOf(Phase phase);

// The policy of that word; kNo for anything else, as nobody restarts by a word that isn't known.
[[nodiscard]] RestartPolicy RestartPolicyOf(std::string_view word);

// Why an application isn't running.
struct Cause {
  CauseKind what = CauseKind::kTurn;
  std::string text;
  std::string on;  // The application that it hangs on; empty for none.
};

struct Exit {
  WallTime time;
  pid_t pid = 0;
  ExitKind how = ExitKind::kExit;
  int value = 0;  // The exit status or the signal.
  std::string text;
};

// Of an application's exits the last so many are kept.
inline constexpr std::size_t kKeptExits = 8;

// A text that applications have in common, so that one copy of it can do for them. Empty for none.
class SharedText {
 public:
  SharedText() = default;
  explicit SharedText(const std::string& text)
      : text_(text.empty() ? nullptr : std::make_shared<const std::string>(text)) {}

  [[nodiscard]] std::string_view View() const {
    return text_ == nullptr ? std::string_view() : std::string_view(*text_);
  }
  // Gives up its own copy if the other one reads the same.
  void ShareWith(const SharedText& other) {
    if (View() == other.View()) {
      text_ = other.text_;
    }
  }

 private:
  std::shared_ptr<const std::string> text_;  // Null for none.
};

// What doesn't change from one start to the next request: who it is, and what was asked for.
struct AppFacts {
  AppKind kind = AppKind::kBase;
  bool isReporting = false;
  RestartPolicy policy = RestartPolicy::kNo;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string name;
  SharedText owner;
  std::string path;
  std::vector<std::string> arguments;
  std::vector<std::string> depends;
  std::vector<std::uint32_t> cores;
  SharedText startFile;
};

// Cheap to copy: whatever is long is shared, and never changed once it is.
struct AppPicture {
  std::shared_ptr<const AppFacts> facts;
  std::shared_ptr<const Cause> cause;              // Null for none that is known.
  std::shared_ptr<const std::vector<Exit>> exits;  // Newest first; null for none.
  WallTime since;                                  // When it came into the state.
  SteadyTime forked;                               // Its last fork.
  std::chrono::microseconds readyIn{-1};  // From there to its report, or to running; -1: not yet.
  // The restarts that count, oldest first; null for none.
  std::shared_ptr<const std::vector<SteadyTime>> restartTimes;
  std::uint32_t restarts = 0;  // Since the manager's start.
  pid_t pid = 0;               // 0: no process.
  AppState state = AppState::kWaiting;
  bool isRestartOver = false;  // Its policy brings it back no more.
};

// How many restarts the policy still grants at `now`; none if it sets no bound.
[[nodiscard]] std::optional<std::size_t> RestartsLeft(const AppPicture& app, SteadyTime now);

struct ManagerPicture {
  bool isBootDone = false;
  WallTime since;                           // The manager's start.
  std::shared_ptr<const AppFacts> awaited;  // Whose report or channel the boot waits for.
  WallTime awaitedSince;
};

// Everything at one moment, the applications in the order of their first mention.
struct Picture {
  ManagerPicture manager;
  std::vector<AppPicture> apps;
};

struct Span {
  std::shared_ptr<const AppFacts> facts;  // Null: the manager's own.
  Phase phase = Phase::kInit;
  std::chrono::microseconds begin{0};  // From the manager's start.
  std::optional<std::chrono::microseconds> end;
};

struct BootPicture {
  std::optional<std::chrono::microseconds> end;
  std::vector<Span> spans;  // In the order of their beginnings.
};

}  // namespace ProcMgr::Status

#endif  // STATUS_PICTURE_H
