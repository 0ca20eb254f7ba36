// Telling whether a file is still the one that was looked at.
#ifndef BASE_FILE_STATE_H
#define BASE_FILE_STATE_H

#include <sys/stat.h>

#include <optional>

namespace ProcMgr {

// What changes with each change of a file, be it replaced, written to or given away.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  time_t changedSec = 0;
  long changedNsec = 0;
  mode_t mode = 0;

  [[nodiscard]] bool operator==(const FileState&) const = default;
  [[nodiscard]] bool IsRegular() const { return S_ISREG(mode); }
};

// Follows links. None if there is no such file.
[[nodiscard]] inline std::optional<FileState> StateOfFile(const char* path) {
  struct stat file {};
  if (stat(path, &file) != 0) {
    return std::nullopt;
  }
  return FileState{file.st_dev,         file.st_ino,          file.st_size,
                   file.st_ctim.tv_sec, file.st_ctim.tv_nsec, file.st_mode};
}

}  // namespace ProcMgr

#endif  // BASE_FILE_STATE_H
