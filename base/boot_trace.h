// The prefix with which the manager stamps the milestones of a boot.
#ifndef BASE_BOOT_TRACE_H
#define BASE_BOOT_TRACE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace ProcMgr {

// The manager's own tag.
inline constexpr const char* kBootTraceTag = "PM";

// The counter behind the traces, and its counts per second. Both are called from any thread.
struct BootClock {
  std::uint64_t (*count)() = nullptr;
  std::uint64_t (*frequency)() = nullptr;
};

// Gives the traces the platform's counter. Called once, before the second thread and the first line
// with a trace.
void SetBootClock(const BootClock& clock);

// Yields "[SECONDSs][BOOT_TRACE][TAG]", the seconds since the counter's start with six decimals,
// for example "[12.500000s][BOOT_TRACE][PM]"; empty without a counter, and if it has no frequency.
// Any thread; makes no system call on 64-bit Arm.
std::string BootStrace(std::string_view tag);

// The text of a count that was read earlier, in a signal handler for example.
std::string FormatBootTrace(std::uint64_t count, std::uint64_t frequency, std::string_view tag);

}  // namespace ProcMgr

#endif  // BASE_BOOT_TRACE_H
