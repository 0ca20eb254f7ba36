// What the fuzz targets share: their input in the shape that the code under test wants, no log, and
// the end of the fuzzer.
#ifndef TESTS_FUZZ_FUZZ_INPUT_H
#define TESTS_FUZZ_FUZZ_INPUT_H

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "core/log.h"

namespace PmTest {

// A target that doesn't look at the lines throws them away.
inline const bool isSilent = [] {
  ProcMgr::SetLogSink([](int, const char*) {});
  return true;
}();

inline std::string_view FuzzText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The path of a file with these bytes, the same file for every input of the process. It lies in
// memory, which is several times as fast as a folder; under a name, since loaders resolve it.
inline std::string FuzzFile(const std::uint8_t* data, std::size_t size) {
  struct File {
    std::string path = "/dev/shm/pm-fuzz-XXXXXX";
    const ProcMgr::UniqueFd fd{mkostemp(path.data(), O_CLOEXEC)};
    File() = default;
    ~File() { (void)unlink(path.c_str()); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
  };
  static const File file;
  if (ftruncate(file.fd.Get(), 0) != 0 ||
      pwrite(file.fd.Get(), data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  return file.path;
}

// Takes an input apart from its front on. At its end there are only zeros.
class FuzzBytes {
 public:
  FuzzBytes(const std::uint8_t* data, std::size_t size) : rest_(FuzzText(data, size)) {}

  [[nodiscard]] bool IsEmpty() const { return rest_.empty(); }
  // At most as many as are left.
  std::string_view Take(std::size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::uint8_t Byte() {
    const std::string_view taken = Take(1);
    return taken.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(taken.front());
  }

 private:
  std::string_view rest_;
};

// Stops the fuzzer: the input has broken a promise of the code under test.
inline void Require(bool promise) {
  if (!promise) {
    std::abort();
  }
}

}  // namespace PmTest

#endif  // TESTS_FUZZ_FUZZ_INPUT_H
