// The keys of an application, and how one application is read.
#ifndef PLATFORM_MANIFEST_MANIFEST_KEYS_H
#define PLATFORM_MANIFEST_MANIFEST_KEYS_H

#include <map>
#include <string>
#include <string_view>

#include "app/manifest.h"
#include "platform/manifest/manifest_values.h"

namespace ProcMgr::Manifest {

// An application as it stands in a file.
struct ReadApplication {
  ApplicationManifest::Fields fields;
  // The pairs that the load must bring for the application to be taken.
  std::map<std::string, std::string> match;
  // False if `match` has a fault, so that it is open whether the application is taken.
  bool isMatchKnown = true;
};

// True for a key of an application.
[[nodiscard]] bool IsApplicationKey(std::string_view key);

// Reads the mapping of one application. Yields false after telling every fault in it. May block on
// the user database.
[[nodiscard]] bool ReadApplicationMapping(ValueReader& reader, const YamlNode& mapping,
                                          ReadApplication& out);

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_MANIFEST_KEYS_H
