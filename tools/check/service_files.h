// The service files of a platform: that of the base services, and the start-up entry files that it
// names.
#ifndef TOOLS_CHECK_SERVICE_FILES_H
#define TOOLS_CHECK_SERVICE_FILES_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/manifest/checked_load.h"
#include "tools/check/finding.h"

namespace ProcMgr::Check {

// An application with its places; points into the load that it comes from.
class Service {
 public:
  Service(const ApplicationManifest& manifest, const Manifest::ApplicationPlaces& places)
      : manifest_(manifest), places_(places) {}

  [[nodiscard]] const ApplicationManifest& Manifest() const { return manifest_; }
  // The name as it may be shown, in quotes.
  [[nodiscard]] std::string ShownName() const;
  [[nodiscard]] bool HasKey(const std::string& key) const { return places_.ofKey.contains(key); }

  // Findings at the value of `key`, or at the application if it has no such key.
  [[nodiscard]] Finding At(const std::string& key, Severity severity, std::string_view rule,
                           std::string text) const;
  // The same at the element `element` of it, or at the value.
  [[nodiscard]] Finding AtElement(const std::string& key, std::string_view element,
                                  Severity severity, std::string_view rule, std::string text) const;

 private:
  const ApplicationManifest& manifest_;
  const Manifest::ApplicationPlaces& places_;
};

// One file with its includes.
struct ServiceFile {
  std::string path;
  Manifest::CheckedLoad load;
  // True for what is started on request, false for base services.
  bool isEntry = false;
  // Of an entry file: the first service that names it; empty if that isn't known.
  std::string owner = {};

  [[nodiscard]] std::vector<Service> Services() const;
};

struct PlatformFiles {
  ServiceFile first;
  // The entry files that it names, each once.
  std::vector<ServiceFile> entries;
};

// Loads the file at `path` and the entry files that it names, telling what can't be read of them.
// `root` is the folder that stands for "/" of the platform; empty for this machine. A first file
// that is an entry file itself, as its patterns show, is taken for one. May block on the user
// database.
[[nodiscard]] PlatformFiles LoadPlatform(const std::string& path, const std::string& root,
                                         const std::map<std::string, std::string>& matchData,
                                         std::vector<Finding>& findings);

}  // namespace ProcMgr::Check

#endif  // TOOLS_CHECK_SERVICE_FILES_H
