// The states of an application and the events that are reported about it, with their words for the
// log. The numbers of ReportAppStateType travel in frames; agents rely on them.
#ifndef BASE_APP_STATE_H
#define BASE_APP_STATE_H

#include <cstdint>
#include <iterator>
#include <string>

namespace ProcMgr {

// Where an application stands.
enum class ProcessState : std::uint32_t {
  INITSTATE = 0,    // A record without a process so far.
  STARTING = 1,     // Forked, and not yet seen alive or not yet reported by itself.
  RUNNING = 2,      // The process is up.
  TERMINATING = 3,  // Asked to end; the exit is awaited.
  TERMINATED = 4,   // The exit has been seen, or the start of a restart has failed.
  RESTARTING = 5,   // The old process is on its way out, or the new one not yet seen alive.
};

// What has just happened to an application. It doesn't mirror ProcessState: a state lasts, an event
// is told once.
enum class ReportAppStateType : std::uint32_t {
  RUNNING_NORMAL_START = 0,
  RUNNING_NORMAL_RESTART = 1,
  RUNNING_ABNORMAL_TERM_TIMEOUT = 2,  // It didn't end in time, and must not be killed.
  TERMINATED_NORMAL_EXIT = 3,
  TERMINATED_ABNORMAL_EXIT = 4,
  INVALID_INTERMEDIATE_STATE = 5,  // Nothing happened; in an answer: not possible just now.
};

// The word of a ProcessState; the empty text for a number that is none.
[[nodiscard]] inline std::string GetProcessStateStr(std::uint64_t index) {
  static constexpr const char* kWords[] = {"INITSTATE",   "STARTING",   "RUNNING",
                                           "TERMINATING", "TERMINATED", "RESTARTING"};
  static_assert(std::size(kWords) ==
                std::size_t{static_cast<std::uint32_t>(ProcessState::RESTARTING)} + 1);
  return index < std::size(kWords) ? kWords[index] : "";
}

[[nodiscard]] inline std::string GetProcessStateStr(ProcessState state) {
  return GetProcessStateStr(std::uint64_t{static_cast<std::uint32_t>(state)});
}

// The word of a ReportAppStateType; the empty text for a number that is none.
[[nodiscard]] inline std::string GetReportAppStateTypeStr(std::uint64_t index) {
  static constexpr const char* kWords[] = {
      "RUNNING_NORMAL_START",   "RUNNING_NORMAL_RESTART",   "RUNNING_ABNORMAL_TERM_TIMEOUT",
      "TERMINATED_NORMAL_EXIT", "TERMINATED_ABNORMAL_EXIT", "INVALID_INTERMEDIATE_STATE"};
  static_assert(
      std::size(kWords) ==
      std::size_t{static_cast<std::uint32_t>(ReportAppStateType::INVALID_INTERMEDIATE_STATE)} + 1);
  return index < std::size(kWords) ? kWords[index] : "";
}

[[nodiscard]] inline std::string GetReportAppStateTypeStr(ReportAppStateType state) {
  return GetReportAppStateTypeStr(std::uint64_t{static_cast<std::uint32_t>(state)});
}

}  // namespace ProcMgr

#endif  // BASE_APP_STATE_H
