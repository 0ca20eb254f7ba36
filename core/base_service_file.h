// The base-service file, which two phases of the boot go by.
#ifndef CORE_BASE_SERVICE_FILE_H
#define CORE_BASE_SERVICE_FILE_H

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/manifest.h"
#include "base/file_state.h"

namespace ProcMgr {

// Main thread.
class BaseServiceFile {
 public:
  // Reads the file at `path`, unless what stands here came from it and nothing that it came from
  // has changed since: the file, the files in which its services stand, and the user database.
  // False if it can't be read; the parser has said why, and nothing stands here.
  [[nodiscard]] bool Load(const std::string& path);

  // What the last Load found, in the order of the files.
  [[nodiscard]] const std::vector<ApplicationManifest>& Manifests() const { return manifests_; }
  // The first of that name, or null.
  [[nodiscard]] const ApplicationManifest* Find(const std::string& name) const;

  // Another file has been parsed that describes `name`. If that is one of the services here, the
  // parser's start graph goes by the other file from now on: the next Load reads.
  void NoteOther(const std::string& name);

  void Clear();

 private:
  [[nodiscard]] bool IsCurrent(const std::string& path) const;

  std::string path_;
  bool isLoaded_ = false;
  std::vector<ApplicationManifest> manifests_;
  std::unordered_map<std::string, std::size_t> byName_;
  std::map<std::string, std::optional<FileState>> sources_;
};

}  // namespace ProcMgr

#endif  // CORE_BASE_SERVICE_FILE_H
