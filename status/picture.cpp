#include "status/picture.h"

#include <algorithm>

namespace ProcMgr::Status {
namespace {

// The word at the place of `value`; the table ends with the last value.
template <std::size_t kSize, typename Enum>
const char* Word(const char* const (&words)[kSize], Enum value, Enum last) {
  const auto index = static_cast<std::size_t>(value);
  return kSize == static_cast<std::size_t>(last) + 1 && index < kSize ? words[index] : "";
}

}  // namespace

const char* WordOf(AppKind kind) {
  static constexpr const char* kWords[] = {"base", "general", "self"};
  return Word(kWords, kind, AppKind::kSelf);
}

const char* WordOf(AppState state) {
  static constexpr const char* kWords[] = {"waiting",  "left-out", "blocked",  "refused",
                                           "starting", "running",  "stopping", "restarting",
                                           "ended",    "failed",   "given-up"};
  return Word(kWords, state, AppState::kGivenUp);
}

const char* WordOf(CauseKind cause) {
  static constexpr const char* kWords[] = {
      "dependency", "missing", "permission", "argument", "digest", "core",   "fork",  "exec",
      "exit",       "signal",  "limit",      "request",  "turn",   "report", "option"};
  return Word(kWords, cause, CauseKind::kOption);
}

const char* WordOf(RestartPolicy policy) {
  static constexpr const char* kWords[] = {"no", "on-failure", "on-forever", "on-until-succeed"};
  return Word(kWords, policy, RestartPolicy::kOnUntilSucceed);
}

RestartPolicy RestartPolicyOf(std::string_view word) {
  for (const RestartPolicy policy :
       {RestartPolicy::kOnFailure, RestartPolicy::kOnForever, RestartPolicy::kOnUntilSucceed}) {
    if (word == WordOf(policy)) {
      return policy;
    }
  }
  return RestartPolicy::kNo;
}

const char* WordOf(ExitKind exit) {
  static constexpr const char* kWords[] = {"exit", "signal", "core", "exec"};
  return Word(kWords, exit, ExitKind::kExec);
}

const char* WordOf(Phase phase) {
  static constexpr const char* kWords[] = {"init",   "priority", "continue", "pause",
                                           "checks", "fork",     "ready",    "open"};
  return Word(kWords, phase, Phase::kOpen);
}

std::optional<std::size_t> RestartsLeft(const AppPicture& app, SteadyTime now) {
  const AppFacts& facts = *app.facts;
  if (facts.kind != AppKind::kBase || app.isRestartOver) {
    return 0;
  }
  if (facts.policy == RestartPolicy::kOnForever) {
    return std::nullopt;
  }
  if (facts.policy != RestartPolicy::kOnFailure) {
    return 0;
  }
  if (app.restartTimes == nullptr) {
    return kMostRestarts;
  }
  const auto counting =
      std::count_if(app.restartTimes->begin(), app.restartTimes->end(),
                    [now](SteadyTime time) { return now - time < kRestartWindow; });
  return kMostRestarts - static_cast<std::size_t>(counting);
}

}  // namespace ProcMgr::Status
