// The prefix with which the manager stamps the milestones of a boot.
#ifndef CORE_BOOT_TRACE_H
#define CORE_BOOT_TRACE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace ProcMgr {

// The manager's own tag.
inline constexpr const char* kBootTraceTag = "PM";

// Yields "[SECONDSs][BOOT_TRACE][TAG]", the seconds since the counter's start with six decimals,
// for example "[12.500000s][BOOT_TRACE][PM]"; empty if the counter has no frequency. Any thread;
// makes no system call on 64-bit Arm.
std::string BootStrace(std::string_view tag);

// The text of a count that was read earlier, in a signal handler for example.
std::string FormatBootTrace(std::uint64_t count, std::uint64_t frequency, std::string_view tag);

// The processor's generic timer, given by the platform (platform/timer): the virtual count, and its
// counts per second. Async-signal-safe.
std::uint64_t GenericTimerCount();
std::uint64_t GenericTimerFrequency();

}  // namespace ProcMgr

#endif  // CORE_BOOT_TRACE_H
