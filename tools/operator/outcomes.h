// Waiting for what becomes of applications that have been asked for.
#ifndef TOOLS_OPERATOR_OUTCOMES_H
#define TOOLS_OPERATOR_OUTCOMES_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "message/request_msg.h"

namespace Operator {

// The reports of an application say nothing about which request they answer, so one request at a
// time waits for one name. Any thread may call.
class Outcomes {
 public:
  using Reports = std::map<std::string, ProcMgr::Message::AppStateInfo>;

  // Reserves names: from its construction to its end, their first report is kept for it.
  class Waiter {
   public:
    // Waits until nobody else has any of the names, at most until `deadline`; IsValid tells.
    Waiter(Outcomes& outcomes, std::vector<std::string> names, ProcMgr::SteadyTime deadline);
    ~Waiter();
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    [[nodiscard]] bool IsValid() const { return isValid_; }

    // Waits until each of `names` has been reported or the deadline has passed, and yields the
    // reports that there are.
    [[nodiscard]] Reports Wait(const std::vector<std::string>& names,
                               ProcMgr::SteadyTime deadline) const;

   private:
    Outcomes& outcomes_;
    const std::vector<std::string> names_;
    bool isValid_ = false;
  };

  // For the agent's callback.
  void Report(const std::vector<ProcMgr::Message::AppStateInfo>& changes) EXCLUDES(mutex_);

 private:
  using Slots = std::map<std::string, std::optional<ProcMgr::Message::AppStateInfo>>;

  [[nodiscard]] bool Reserve(const std::vector<std::string>& names, ProcMgr::SteadyTime deadline)
      EXCLUDES(mutex_);
  void Free(const std::vector<std::string>& names) EXCLUDES(mutex_);
  [[nodiscard]] bool AnyTaken(const std::vector<std::string>& names) const REQUIRES(mutex_);
  [[nodiscard]] bool AllReported(const std::vector<std::string>& names) const REQUIRES(mutex_);

  ProcMgr::Mutex mutex_;
  ProcMgr::CondVar changed_;
  Slots slots_ GUARDED_BY(mutex_);
};

}  // namespace Operator

#endif  // TOOLS_OPERATOR_OUTCOMES_H
