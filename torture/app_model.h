// What the manager must report of a general application, whatever is asked and killed: a model of
// its states.
#ifndef TORTURE_APP_MODEL_H
#define TORTURE_APP_MODEL_H

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

namespace PmTorture {

enum class State { kGone, kRunning, kTerminating, kRestarting };
enum class Act { kStart, kRestart, kTerm, kKill };

// A report that is to come: to the agent of that number, and to the access manager with it.
struct Expected {
  std::size_t receiver = 0;
  int state = -1;
};

// One application. `asker` is the number of the agent that asks.
class AppModel {
 public:
  // A stubborn application ignores SIGTERM, and its term time-out is longer than any run: only a
  // kill ends it. A dynamic one has a new record, and with it a new owner, at each start.
  AppModel(std::string name, bool isStubborn, bool isDynamic)
      : name_(std::move(name)), isStubborn_(isStubborn), isDynamic_(isDynamic) {}

  [[nodiscard]] const std::string& Name() const { return name_; }
  [[nodiscard]] bool IsStubborn() const { return isStubborn_; }
  [[nodiscard]] bool IsDynamic() const { return isDynamic_; }
  [[nodiscard]] bool IsUp() const { return state_ != State::kGone; }
  [[nodiscard]] bool IsRunning() const { return state_ == State::kRunning; }

  // Of its process, from the reports.
  pid_t pid = 0;

  // Whether the act is answered at once and changes nothing.
  [[nodiscard]] bool IsAnsweredAtOnce(Act act) const;
  // The answer to such an act.
  Expected Answer(std::size_t asker);

  // Whether the act moves the application on.
  [[nodiscard]] bool CanMove(Act act) const;
  // Moves on by such an act. Yields the report that follows; none if it comes later or nobody is
  // told.
  std::optional<Expected> Move(Act act, std::size_t asker);
  // How many exits the last Move has made, and whether the application has gone by it.
  [[nodiscard]] bool HasEnded() const { return hasEnded_; }
  [[nodiscard]] bool HasGone() const { return hasEnded_ && !IsUp(); }

 private:
  void SetOwner(std::size_t asker);
  std::optional<Expected> Kill();

  std::string name_;
  bool isStubborn_;
  bool isDynamic_;
  State state_ = State::kGone;
  std::optional<std::size_t> owner_;  // None until somebody has asked for it.
  bool hasEnded_ = false;
};

}  // namespace PmTorture

#endif  // TORTURE_APP_MODEL_H
