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
    if (taker_) {
      taker_(true, file, place, text);
    } else {
      LogError("%s: %s", PlaceText(file, place).c_str(), text.c_str());
    }
  }
  ++lines_;
}

void Faults::Warning(const std::string& file, const Place& place, const std::string& text) {
  if (!IsFull()) {
    if (taker_) {
      taker_(false, file, place, text);
    } else {
      LogWarning("%s: %s", PlaceText(file, place).c_str(), text.c_str());
    }
  }
  ++lines_;
}

void Faults::Finish() const {
  if (lines_ <= kMaxFaultLines) {
    return;
  }
  const std::size_t left = lines_ - kMaxFaultLines;
  if (taker_) {
    taker_(errors_ > 0, {}, {},
           std::to_string(left) + " more lines about these files are left out");
  } else {
    LogError("%zu more lines about these files are left out; correct what the first ones tell",
             left);
  }
}

}  // namespace ProcMgr::Manifest
