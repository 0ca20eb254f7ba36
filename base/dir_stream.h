// The owner of an open directory.
#ifndef BASE_DIR_STREAM_H
#define BASE_DIR_STREAM_H

#include <dirent.h>

#include <memory>

namespace ProcMgr {

struct CloseDir {
  void operator()(DIR* directory) const { (void)closedir(directory); }
};

// opendir opens close-on-exec.
using DirStream = std::unique_ptr<DIR, CloseDir>;

}  // namespace ProcMgr

#endif  // BASE_DIR_STREAM_H
