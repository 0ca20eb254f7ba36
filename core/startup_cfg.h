// The start-up configuration of general applications: the manifests of what may be asked for.
//
// A manifest with a fixed name is found by that name; the name of a manifest with dynamic
// parameters is a pattern, and the application's name is matched with it. A manifest that is loaded
// again takes the old one's place. Every call from any thread; what is handed out are copies.
#ifndef CORE_STARTUP_CFG_H
#define CORE_STARTUP_CFG_H

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/manifest.h"
#include "base/mutex.h"
#include "core/app_lists.h"
#include "message/request_msg.h"

namespace ProcMgr {

// What a failed load of a start-up configuration yields.
inline constexpr std::uint32_t kLoadStartCfgFailed = 0xF10405;

class StartupCfg {
 public:
  using ManifestMap = std::unordered_map<std::string, ApplicationManifest>;

  // Parses the file and stores what the parser made of it, also if that wasn't all. Yields 0 or
  // kLoadStartCfgFailed. Reads the file system.
  [[nodiscard]] std::uint32_t LoadStartCfgInfo(const Message::StartupCfgInfo& cfg)
      EXCLUDES(cfgMapMutex_);

  void StoreManifests(const std::vector<ApplicationManifest>& manifests) EXCLUDES(cfgMapMutex_);

  // The manifest of that very name.
  [[nodiscard]] std::optional<ApplicationManifest> Find(const std::string& name)
      EXCLUDES(cfgMapMutex_);

  // The first manifest, in no particular order, whose pattern `name` fits.
  [[nodiscard]] std::optional<ApplicationManifest> Match(const std::string& name)
      EXCLUDES(cfgMapMutex_);

  // All manifests with a fixed name.
  [[nodiscard]] ManifestMap Fixed() EXCLUDES(cfgMapMutex_);

 private:
  Mutex cfgMapMutex_ ACQUIRED_AFTER(baseAppMutex_);
  ManifestMap startCfgMap_ GUARDED_BY(cfgMapMutex_);
  ManifestMap dynamicCfgMap_ GUARDED_BY(cfgMapMutex_);  // By pattern.
};

}  // namespace ProcMgr

#endif  // CORE_STARTUP_CFG_H
