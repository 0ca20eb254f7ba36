// The fault lines of one load.
#ifndef PLATFORM_MANIFEST_FAULTS_H
#define PLATFORM_MANIFEST_FAULTS_H

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "platform/manifest/place.h"

namespace ProcMgr::Manifest {

// How many lines one load writes. A broken file of a megabyte could otherwise fill the log.
inline constexpr std::size_t kMaxFaultLines = 1000;

// "FILE:LINE:COLUMN", printable.
[[nodiscard]] std::string PlaceText(const std::string& file, const Place& place);

// Takes a fault in place of the log. `file` is empty for what concerns the load as a whole.
using FaultTaker = std::function<void(bool isError, const std::string& file, const Place& place,
                                      const std::string& text)>;

// Writes "FILE:LINE:COLUMN: text" to the log as the faults come, or gives them to a taker, and
// counts them. One thread.
class Faults {
 public:
  Faults() = default;
  explicit Faults(FaultTaker taker) : taker_(std::move(taker)) {}

  // `text` says what is wrong, and what would be right; it is printable and bounded.
  void Error(const std::string& file, const Place& place, const std::string& text);
  void Warning(const std::string& file, const Place& place, const std::string& text);

  // Tells how many lines had no room, if any.
  void Finish() const;

  [[nodiscard]] bool HasErrors() const { return errors_ > 0; }
  // True if further lines aren't written any more.
  [[nodiscard]] bool IsFull() const { return lines_ >= kMaxFaultLines; }

 private:
  FaultTaker taker_;
  std::size_t errors_ = 0;
  std::size_t lines_ = 0;
};

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_FAULTS_H
