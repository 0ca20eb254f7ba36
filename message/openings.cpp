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
    openings_.Forget(name_);
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
  if (!underWay_.try_emplace(name, scope.get()).second) {
    return nullptr;
  }
  scope->isEntered_ = true;
  return scope;
}

void Openings::End(const std::string& name) {
  const MutexLock lock(mutex_);
  if (const auto opening = underWay_.find(name); opening != underWay_.end()) {
    (void)eventfd_write(opening->second->CancelFd(), 1);
  }
}

void Openings::EndAll() {
  const MutexLock lock(mutex_);
  for (const auto& [name, opening] : underWay_) {
    (void)eventfd_write(opening->CancelFd(), 1);
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

void Openings::Forget(const std::string& name) {
  const MutexLock lock(mutex_);
  underWay_.erase(name);
  ended_.NotifyAll();
}

}  // namespace ProcMgr
