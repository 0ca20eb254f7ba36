// Lists of core numbers.
#ifndef PLATFORM_MANIFEST_CORE_LIST_H
#define PLATFORM_MANIFEST_CORE_LIST_H

#include <bitset>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/manifest/key_info.h"

namespace ProcMgr::Manifest {

// Core numbers in the order in which they came, each once.
class CoreList {
 public:
  // Appends the cores of "N", "N-M" or several of these separated by commas; blanks around them
  // don't count. Yields false, with nothing appended, for any other text.
  [[nodiscard]] bool Append(std::string_view text);

  [[nodiscard]] const std::vector<std::uint32_t>& Cores() const { return cores_; }

 private:
  std::vector<std::uint32_t> cores_;
  std::bitset<kMaxCore + 1> taken_;
};

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_CORE_LIST_H
