// The owner of one file descriptor.
#ifndef BASE_UNIQUE_FD_H
#define BASE_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace ProcMgr {

// Closes its descriptor at the end of its life; -1 stands for none. A plain `int fd` parameter
// anywhere in the project is borrowed.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  [[nodiscard]] int Get() const { return fd_; }
  [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      // Linux frees the number whatever close says, so a retry could close a stranger's.
      (void)close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace ProcMgr

#endif  // BASE_UNIQUE_FD_H
