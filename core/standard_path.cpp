#include "core/standard_path.h"

#include <array>
#include <climits>
#include <cstdlib>

namespace ProcMgr {

bool StandardizationPath(const std::string& input, std::string& output) {
  static_assert(PATH_MAX == 4096);
  if (input.size() > PATH_MAX) {
    return false;
  }
  std::array<char, PATH_MAX + 1> resolved{};
  if (realpath(input.c_str(), resolved.data()) == nullptr) {
    return false;
  }
  output = resolved.data();
  return true;
}

}  // namespace ProcMgr
