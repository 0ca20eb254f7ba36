#include "core/boot_trace.h"

namespace ProcMgr {

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
  return FormatBootTrace(GenericTimerCount(), GenericTimerFrequency(), tag);
}

}  // namespace ProcMgr
