// The openings of channels that are under way. Used by proc_mgr_master.cpp only.
#ifndef MESSAGE_OPENINGS_H
#define MESSAGE_OPENINGS_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "base/unique_fd.h"

namespace ProcMgr {

// One at a time for a name. An opening belongs to one process: whoever sees that process end ends
// its opening, and starts no other process under the name before the opening is over. So what an
// opening connects to can't be somebody else's.
//
// Any thread. The mutex is taken before the name table's lock.
class Openings {
 public:
  // An opening, from before the library is called to after its descriptor has been filed.
  class Scope {
   public:
    Scope(Openings& openings, std::string name, UniqueFd cancel);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    // Becomes readable when the wait for the peer is to end.
    [[nodiscard]] int CancelFd() const { return cancel_.Get(); }
    // Whether it has been told to end.
    [[nodiscard]] bool IsEnding() const;

    // The opening waits for its turn. If it is ended before TakeTurn, it is over at once, and
    // `abandoned` is called, once, by whoever ends it and under his locks: it mustn't wait.
    void WaitForTurn(std::function<void()> abandoned);
    // Yields false if it has been ended before.
    [[nodiscard]] bool TakeTurn();

   private:
    friend class Openings;

    Openings& openings_;
    const std::string name_;
    const UniqueFd cancel_;
    bool isEntered_ = false;  // Set once, before the scope is handed out.
  };

  // Yields null if an opening of the name is under way already, or, with the errno in `error`, if
  // the kernel has no descriptor for it.
  [[nodiscard]] std::shared_ptr<Scope> Begin(const std::string& name, int& error) EXCLUDES(mutex_);

  // Tells the opening of `name` to end, if there is one; every opening. It sticks: a wait that
  // begins later ends too. Neither waits.
  void End(const std::string& name) EXCLUDES(mutex_);
  void EndAll() EXCLUDES(mutex_);

  [[nodiscard]] bool IsUnderWay(const std::string& name) EXCLUDES(mutex_);

  // Waits until `isFiled` yields true, no opening is under way or the limit has passed. Yields the
  // last result of `isFiled`. No filing can slip through between its call and the test of the
  // openings: the end of an opening comes after its filing and needs the mutex.
  [[nodiscard]] bool WaitUntilFiled(std::chrono::milliseconds limit,
                                    const std::function<bool()>& isFiled) EXCLUDES(mutex_);

 private:
  struct UnderWay {
    const Scope* scope = nullptr;
    std::function<void()> abandoned;  // Set while it waits for its turn.
  };

  void Forget(const Scope& scope) EXCLUDES(mutex_);

  Mutex mutex_;
  CondVar ended_;
  std::map<std::string, UnderWay> underWay_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr

#endif  // MESSAGE_OPENINGS_H
