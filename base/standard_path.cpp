#include "base/standard_path.h"

#include <array>
#include <climits>
#include <cstdlib>

namespace ProcMgr {

bool StandardizationPath(const std::string& input, std::string& output) {
  static_assert(PATH_MAX == 4096);
  // A zero byte would cut the path short for the kernel, but not for who compares the text.
  if (input.size() > PATH_MAX || input.find('\0') != std::string::npos) {
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
