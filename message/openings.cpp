#include "message/openings.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <utility>

#include "base/steady_time.h"

namespace ProcMgr {

Openings::Scope::Scope(Openings& openings, std::string name, UniqueFd cancel)
    : openings_(openings), name_(std::move(name)), cancel_(std::move(cancel)) {}

Openings::Scope::~Scope() {
  if (isEntered_) {
    openings_.Forget(*this);
  }
}

bool Openings::Scope::IsEnding() const {
  pollfd entry{cancel_.Get(), POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

std::shared_ptr<Openings::Scope> Openings::Begin(const std::string& name, int& error) {
  error = 0;
  UniqueFd cancel(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!cancel.IsOpen()) {
    error = errno;
    return nullptr;
  }
  auto scope = std::make_shared<Scope>(*this, name, std::move(cancel));
  const MutexLock lock(mutex_);
  if (!underWay_.try_emplace(name, UnderWay{scope.get(), nullptr}).second) {
    return nullptr;
  }
  scope->isEntered_ = true;
  return scope;
}

void Openings::Scope::WaitForTurn(std::function<void()> abandoned) {
  const MutexLock lock(openings_.mutex_);
  openings_.underWay_.at(name_).abandoned = std::move(abandoned);
}

bool Openings::Scope::TakeTurn() {
  std::function<void()> unused;
  const MutexLock lock(openings_.mutex_);
  const auto own = openings_.underWay_.find(name_);
  // Another of the name may have begun since this one was abandoned.
  if (own == openings_.underWay_.end() || own->second.scope != this) {
    return false;
  }
  unused.swap(own->second.abandoned);
  return true;
}

void Openings::End(const std::string& name) {
  std::function<void()> abandoned;
  {
    const MutexLock lock(mutex_);
    const auto opening = underWay_.find(name);
    if (opening == underWay_.end()) {
      return;
    }
    (void)eventfd_write(opening->second.scope->CancelFd(), 1);
    if (opening->second.abandoned) {
      abandoned = std::move(opening->second.abandoned);
      underWay_.erase(opening);
      ended_.NotifyAll();
    }
  }
  if (abandoned) {
    abandoned();
  }
}

void Openings::EndAll() {
  const MutexLock lock(mutex_);
  for (const auto& [name, opening] : underWay_) {
    (void)eventfd_write(opening.scope->CancelFd(), 1);
  }
}

bool Openings::IsUnderWay(const std::string& name) {
  const MutexLock lock(mutex_);
  return underWay_.contains(name);
}

bool Openings::WaitUntilFiled(std::chrono::milliseconds limit,
                              const std::function<bool()>& isFiled) {
  const SteadyTime deadline = SteadyNow() + limit;
  const MutexLock lock(mutex_);
  bool inTime = true;
  while (!isFiled()) {
    if (underWay_.empty() || !inTime) {
      return false;
    }
    inTime = ended_.WaitUntil(mutex_, deadline);
  }
  return true;
}

void Openings::Forget(const Scope& scope) {
  const MutexLock lock(mutex_);
  const auto own = underWay_.find(scope.name_);
  if (own != underWay_.end() && own->second.scope == &scope) {
    underWay_.erase(own);
    ended_.NotifyAll();
  }
}

}  // namespace ProcMgr
