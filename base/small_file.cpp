#include "base/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "base/fixed_text.h"
#include "base/raw_calls.h"
#include "base/unique_fd.h"

namespace ProcMgr {
namespace {

using Block = std::array<char, 4096>;

UniqueFd OpenToRead(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

// Yields how much has been read, 0 at the end, or -1 with errno.
ssize_t ReadBlock(int fd, Block& block) {
  ssize_t got = 0;
  do {
    got = read(fd, block.data(), block.size());
  } while (got < 0 && errno == EINTR);
  return got;
}

// Puts lines together from the blocks of a file.
class LineCutter {
 public:
  LineCutter(std::size_t longest, const LineTaker& take) : longest_(longest), take_(take) {}

  // Yields false if the taker wants no more.
  bool Feed(std::string_view bytes) {
    while (!bytes.empty()) {
      const std::size_t newline = bytes.find('\n');
      Keep(bytes.substr(0, newline));
      if (newline == std::string_view::npos) {
        return true;
      }
      if (!Give()) {
        return false;
      }
      bytes.remove_prefix(newline + 1);
    }
    return true;
  }

  // Gives a last line that no newline ends.
  void Finish() {
    if (length_ != 0) {
      (void)Give();
    }
  }

 private:
  void Keep(std::string_view part) {
    length_ += part.size();
    line_.append(part.substr(0, longest_ - line_.size()));
  }

  bool Give() {
    const bool goOn = take_(line_, length_);
    line_.clear();
    length_ = 0;
    return goOn;
  }

  const std::size_t longest_;
  const LineTaker& take_;
  std::string line_;
  std::size_t length_ = 0;
};

}  // namespace

int ReadSmallFile(const std::string& path, std::size_t limit, std::string& out) {
  const UniqueFd file = OpenToRead(path);
  if (!file.IsOpen()) {
    return errno;
  }
  std::string text;
  Block block{};
  for (;;) {
    const ssize_t got = ReadBlock(file.Get(), block);
    if (got < 0) {
      return errno;
    }
    if (got == 0) {
      break;
    }
    if (text.size() + static_cast<std::size_t>(got) > limit) {
      return EFBIG;
    }
    text.append(block.data(), static_cast<std::size_t>(got));
  }
  out = std::move(text);
  return 0;
}

int ReadLines(const std::string& path, std::size_t longest, const LineTaker& take) {
  const UniqueFd file = OpenToRead(path);
  if (!file.IsOpen()) {
    return errno;
  }
  LineCutter cutter(longest, take);
  Block block{};
  for (;;) {
    const ssize_t got = ReadBlock(file.Get(), block);
    if (got < 0) {
      return errno;
    }
    if (got == 0) {
      cutter.Finish();
      return 0;
    }
    if (!cutter.Feed({block.data(), static_cast<std::size_t>(got)})) {
      return 0;
    }
  }
}

int AppendId(const char* path, std::int64_t id) {
  FixedText<24> line;
  line.AddNumber(id).Add("\n");
  return RawAppend(path, line.View().data(), line.View().size());
}

}  // namespace ProcMgr
