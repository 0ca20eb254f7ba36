#include "base/boot_trace.h"

namespace ProcMgr {
namespace {

BootClock bootClock;

}  // namespace

void SetBootClock(const BootClock& clock) {
  bootClock = clock;
}

std::string FormatBootTrace(std::uint64_t count, std::uint64_t frequency, std::string_view tag) {
  if (frequency == 0) {
    return {};
  }
  const double seconds = static_cast<double>(count) / static_cast<double>(frequency);
  std::string text = "[" + std::to_string(seconds) + "s][BOOT_TRACE][";
  text.append(tag).append("]");
  return text;
}

std::string BootStrace(std::string_view tag) {
  if (bootClock.count == nullptr || bootClock.frequency == nullptr) {
    return {};
  }
  return FormatBootTrace(bootClock.count(), bootClock.frequency(), tag);
}

}  // namespace ProcMgr
