// What one user may use up of a server, and how a server bears a flood of those whom it refuses.
#ifndef PLATFORM_NEXIO_ADMISSION_H
#define PLATFORM_NEXIO_ADMISSION_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <unordered_map>

#include "base/steady_time.h"

namespace ProcMgr::Nexio {

// The places of a server. Root and the user whom the server itself runs under may take them all;
// another user has at most kPlacesOfUser at a time, and after kQuickOnes connections gets new ones
// only every kPaceOfUser. The pace is what makes the process's handles last: half of them for
// strangers, two a second, are 17 years of one user who does nothing else.
//
// No lock of its own: it belongs to a server, whose lock guards it.
class Admission {
 public:
  static constexpr int kPlacesOfUser = 16;
  static constexpr int kQuickOnes = 256;
  static constexpr auto kPaceOfUser = std::chrono::milliseconds(500);

  explicit Admission(std::uint32_t maxClients) : maxClients_(maxClients) {}

  [[nodiscard]] static bool IsTrusted(uid_t uid);

  // Takes a place for a client of `uid`. Yields null, or why it gets none, as a text for the log.
  [[nodiscard]] const char* Enter(uid_t uid, SteadyTime now);
  // Gives the place back.
  void Leave(uid_t uid);

 private:
  struct User {
    int places = 0;
    SteadyTime paidUntil;  // Each connection adds one pace to it, and time pays it off.
  };

  void ForgetIdle(SteadyTime now);

  const std::uint32_t maxClients_;
  std::uint32_t clients_ = 0;
  std::unordered_map<uid_t, User> users_;  // Without the trusted ones.
};

// Counts what a server refuses. After kMost in one window it accepts nothing for the rest of it, so
// that a flood costs no processor, while others wait no longer than a window. Nor does it cost the
// log more than kMost lines and one: it is over after kQuiet without a refusal.
class FloodGuard {
 public:
  static constexpr int kMost = 16;
  static constexpr auto kWindow = std::chrono::milliseconds(100);
  static constexpr auto kQuiet = std::chrono::seconds(1);

  enum class Line { kRefusal, kFlood, kNone };

  // Counts one refusal, and yields the line that it deserves.
  [[nodiscard]] Line Count(SteadyTime now);

  // Until when nothing is to be accepted; a time that has passed if there is no flood.
  [[nodiscard]] SteadyTime PauseEnd() const;

 private:
  SteadyTime windowBegin_;
  int inWindow_ = 0;
  SteadyTime last_;
  int sinceQuiet_ = 0;
};

// True if a process that has just got the descriptor `fd` still has some in reserve for what it
// opens itself, a quarter of its limit but 256 at most.
[[nodiscard]] bool LeavesReserve(int fd);

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_ADMISSION_H
