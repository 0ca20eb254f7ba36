// A file for a fuzz target whose code under test wants a path.
#ifndef TESTS_FUZZ_INPUT_FILE_H
#define TESTS_FUZZ_INPUT_FILE_H

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace ProcMgr::Fuzz {

// Writes the input to a file of this process, over the one before, and yields its path. The file
// goes when the process ends in an orderly way.
inline const std::string& InputFile(const std::uint8_t* data, std::size_t size) {
  struct TempFile {
    TempFile() {
      const int fd = mkstemp(path.data());
      if (fd < 0) {
        std::abort();
      }
      (void)close(fd);
    }
    ~TempFile() { (void)unlink(path.c_str()); }
    std::string path = "/tmp/pm_fuzz_XXXXXX";
  };
  static const TempFile file;
  std::FILE* const stream = std::fopen(file.path.c_str(), "we");
  if (stream == nullptr || std::fwrite(data, 1, size, stream) != size || std::fclose(stream) != 0) {
    std::abort();
  }
  return file.path;
}

// Stops the fuzzer: the input has broken a promise of the code under test.
inline void Require(bool promise) {
  if (!promise) {
    std::abort();
  }
}

}  // namespace ProcMgr::Fuzz

#endif  // TESTS_FUZZ_INPUT_FILE_H
