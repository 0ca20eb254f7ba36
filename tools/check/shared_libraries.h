// The shared libraries of programs, looked for as the dynamic linker of the GNU C library does.
#ifndef TOOLS_CHECK_SHARED_LIBRARIES_H
#define TOOLS_CHECK_SHARED_LIBRARIES_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/check/executable.h"

namespace ProcMgr::Check {

struct MissingLibrary {
  std::string name;
  // The program or library that needs it, a path of the platform.
  std::string neededBy;
};

// Finds the libraries of one platform, and remembers what it has read. One thread.
class SharedLibraries {
 public:
  // `root` as in root_path.h. Reads /etc/ld.so.conf and what it includes: the linker itself goes by
  // the cache that ldconfig makes of it.
  explicit SharedLibraries(std::string root);

  // The libraries that the ELF program at `path`, or one of its libraries, needs and that aren't
  // there for its machine, each once. `libraryPath` is its LD_LIBRARY_PATH. None for a program of
  // another dynamic linker. Reads files.
  [[nodiscard]] std::vector<MissingLibrary> FindMissing(const std::string& path,
                                                        const Executable& program,
                                                        const std::string& libraryPath);

  // Whether a program that says nothing of folders finds the library.
  [[nodiscard]] bool IsInCommonFolder(const std::string& name);

 private:
  // What has been loaded, and who asked for it first.
  struct Object {
    std::string path;
    Executable file;
    std::optional<std::size_t> loader;
  };

  void ReadConf(const std::string& pattern, int depth);
  // The file at the path of the platform; none if nothing is there. An unreadable one is empty.
  const std::optional<Executable>& FileAt(const std::string& path);
  // The folders in which the linker looks for what `objects[which]` needs, in its order.
  [[nodiscard]] std::vector<std::string> Folders(const std::vector<Object>& objects,
                                                 std::size_t which,
                                                 const std::string& libraryPath) const;
  [[nodiscard]] std::optional<Object> Find(const std::string& name,
                                           const std::vector<Object>& objects, std::size_t which,
                                           const std::string& libraryPath);

  const std::string root_;
  // Those of the configuration, and behind them the built-in ones.
  std::vector<std::string> commonFolders_;
  std::map<std::string, std::optional<Executable>> files_;
};

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_SHARED_LIBRARIES_H
