#include "torture/app_model.h"

#include "base/app_state.h"

namespace PmTorture {
namespace {

int Number(ProcMgr::ReportAppStateType state) {
  return static_cast<int>(state);
}

using ProcMgr::ReportAppStateType;

}  // namespace

bool AppModel::IsAnsweredAtOnce(Act act) const {
  switch (state_) {
    case State::kGone:
      return act == Act::kTerm;
    case State::kRunning:
      return act == Act::kStart;
    case State::kTerminating:
    case State::kRestarting:
      return act != Act::kKill;
  }
  return false;
}

Expected AppModel::Answer(std::size_t asker) {
  // An end asked for makes a record too, and its owner with it.
  if (!isDynamic_) {
    SetOwner(asker);
  }
  switch (state_) {
    case State::kGone:
      return {asker, Number(ReportAppStateType::TERMINATED_NORMAL_EXIT)};
    case State::kRunning:
      return {asker, Number(ReportAppStateType::RUNNING_NORMAL_START)};
    default:
      return {asker, Number(ReportAppStateType::INVALID_INTERMEDIATE_STATE)};
  }
}

bool AppModel::CanMove(Act act) const {
  return !IsAnsweredAtOnce(act) && (act != Act::kKill || IsUp());
}

std::optional<Expected> AppModel::Move(Act act, std::size_t asker) {
  hasEnded_ = false;
  if (act == Act::kKill) {
    return Kill();
  }
  const bool isTerm = act == Act::kTerm;
  if (state_ == State::kGone) {
    SetOwner(asker);
    state_ = State::kRunning;
    return Expected{*owner_,
                    Number(act == Act::kStart ? ReportAppStateType::RUNNING_NORMAL_START
                                              : ReportAppStateType::RUNNING_NORMAL_RESTART)};
  }
  if (isStubborn_) {
    state_ = isTerm ? State::kTerminating : State::kRestarting;
    return std::nullopt;
  }
  hasEnded_ = true;
  state_ = isTerm ? State::kGone : State::kRunning;
  return Expected{*owner_, Number(isTerm ? ReportAppStateType::TERMINATED_NORMAL_EXIT
                                         : ReportAppStateType::RUNNING_NORMAL_RESTART)};
}

std::optional<Expected> AppModel::Kill() {
  hasEnded_ = true;
  const State before = state_;
  state_ = before == State::kRestarting ? State::kRunning : State::kGone;
  const ReportAppStateType report =
      before == State::kRunning       ? ReportAppStateType::TERMINATED_ABNORMAL_EXIT
      : before == State::kTerminating ? ReportAppStateType::TERMINATED_NORMAL_EXIT
                                      : ReportAppStateType::RUNNING_NORMAL_RESTART;
  return Expected{*owner_, Number(report)};
}

void AppModel::SetOwner(std::size_t asker) {
  if (!owner_.has_value() || isDynamic_) {
    owner_ = asker;
  }
}

}  // namespace PmTorture
