// What the fuzz targets share: their input in the shape that the code under test wants, no log, and
// the end of the fuzzer.
#ifndef TESTS_FUZZ_FUZZ_INPUT_H
#define TESTS_FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/log.h"
#include "tests/support/temp_folder.h"

namespace PmTest {

// A target that doesn't look at the lines throws them away.
inline const bool isSilent = [] {
  ProcMgr::SetLogSink([](int, const char*) {});
  return true;
}();

inline std::string_view FuzzText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The path of a file with these bytes, the same file for every input of the process.
inline std::string FuzzFile(const std::uint8_t* data, std::size_t size) {
  static const TempFolder folder;
  return folder.Write("fuzz.yaml", FuzzText(data, size));
}

// Stops the fuzzer: the input has broken a promise of the code under test.
inline void Require(bool promise) {
  if (!promise) {
    std::abort();
  }
}

}  // namespace PmTest

#endif  // TESTS_FUZZ_FUZZ_INPUT_H
