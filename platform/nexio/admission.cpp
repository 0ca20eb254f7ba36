#include "platform/nexio/admission.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace ProcMgr::Nexio {
namespace {

// From so many on, users who have neither a place nor anything to pay off are looked for.
constexpr std::size_t kManyUsers = 64;

constexpr rlim_t kGreatestReserve = 256;

}  // namespace

bool Admission::IsTrusted(uid_t uid) {
  return uid == 0 || uid == geteuid();
}

const char* Admission::Enter(uid_t uid, SteadyTime now) {
  if (clients_ >= maxClients_) {
    return "the server is full";
  }
  if (!IsTrusted(uid)) {
    ForgetIdle(now);
    User& user = users_[uid];
    if (user.places >= kPlacesOfUser) {
      return "its user has enough connections";
    }
    const SteadyTime paid = std::max(user.paidUntil, now);
    if (paid - now > (kQuickOnes - 1) * kPaceOfUser) {
      return "its user connects too often";
    }
    user.paidUntil = paid + kPaceOfUser;
    ++user.places;
  }
  ++clients_;
  return nullptr;
}

void Admission::Leave(uid_t uid) {
  --clients_;
  if (const auto user = users_.find(uid); user != users_.end()) {
    --user->second.places;
  }
}

void Admission::ForgetIdle(SteadyTime now) {
  if (users_.size() >= kManyUsers) {
    std::erase_if(users_, [now](const auto& entry) {
      return entry.second.places == 0 && entry.second.paidUntil <= now;
    });
  }
}

FloodGuard::Line FloodGuard::Count(SteadyTime now) {
  if (now - windowBegin_ >= kWindow) {
    windowBegin_ = now;
    inWindow_ = 0;
  }
  ++inWindow_;
  if (now - std::exchange(last_, now) >= kQuiet) {
    sinceQuiet_ = 0;
  }
  sinceQuiet_ = std::min(sinceQuiet_ + 1, kMost + 2);
  return sinceQuiet_ <= kMost       ? Line::kRefusal
         : sinceQuiet_ == kMost + 1 ? Line::kFlood
                                    : Line::kNone;
}

SteadyTime FloodGuard::PauseEnd() const {
  return inWindow_ > kMost ? windowBegin_ + kWindow : windowBegin_;
}

bool LeavesReserve(int fd) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return true;
  }
  // The kernel gives out the lowest number that is free: all below this one are in use.
  const rlim_t reserve = std::min(limit.rlim_cur / 4, kGreatestReserve);
  return static_cast<rlim_t>(fd) < limit.rlim_cur - reserve;
}

}  // namespace ProcMgr::Nexio
