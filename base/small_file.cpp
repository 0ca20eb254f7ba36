#include "base/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "base/unique_fd.h"

namespace ProcMgr {

int ReadSmallFile(const std::string& path, std::size_t limit, std::string& out) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.IsOpen()) {
    return errno;
  }
  std::string text;
  std::array<char, 4096> block{};
  for (;;) {
    const ssize_t got = read(file.Get(), block.data(), block.size());
    if (got == 0) {
      break;
    }
    if (got < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    if (text.size() + static_cast<std::size_t>(got) > limit) {
      return EFBIG;
    }
    text.append(block.data(), static_cast<std::size_t>(got));
  }
  out = std::move(text);
  return 0;
}

int AppendId(const std::string& path, std::int64_t id) {
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  if (!file.IsOpen()) {
    return errno;
  }
  const std::string line = std::to_string(id) + "\n";
  return write(file.Get(), line.data(), line.size()) < 0 ? errno : 0;
}

}  // namespace ProcMgr
