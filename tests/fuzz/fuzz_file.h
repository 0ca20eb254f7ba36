// The bytes of a fuzzer as a file, for code that takes a path.
#ifndef TESTS_FUZZ_FUZZ_FILE_H
#define TESTS_FUZZ_FUZZ_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tests/support/temp_folder.h"

namespace PmTest {

// The path of a file with these bytes, the same file for every input of the process.
inline std::string FuzzFile(const std::uint8_t* data, std::size_t size) {
  static const TempFolder folder;
  return folder.Write("fuzz.yaml", std::string_view(reinterpret_cast<const char*>(data), size));
}

}  // namespace PmTest

#endif  // TESTS_FUZZ_FUZZ_FILE_H
