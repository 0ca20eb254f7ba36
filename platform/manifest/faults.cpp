#include "platform/manifest/faults.h"

#include "base/printable.h"
#include "core/log.h"

namespace ProcMgr::Manifest {

std::string PlaceText(const std::string& file, const Place& place) {
  return Printable(file, kShownPathBytes) + ':' + std::to_string(place.line) + ':' +
         std::to_string(place.column);
}

void Faults::Error(const std::string& file, const Place& place, const std::string& text) {
  ++errors_;
  if (!IsFull()) {
    LogError("%s: %s", PlaceText(file, place).c_str(), text.c_str());
  }
  ++lines_;
}

void Faults::Warning(const std::string& file, const Place& place, const std::string& text) {
  if (!IsFull()) {
    LogWarning("%s: %s", PlaceText(file, place).c_str(), text.c_str());
  }
  ++lines_;
}

void Faults::Finish() const {
  if (lines_ > kMaxFaultLines) {
    LogError("%zu more lines about these files are left out; correct what the first ones tell",
             lines_ - kMaxFaultLines);
  }
}

}  // namespace ProcMgr::Manifest
