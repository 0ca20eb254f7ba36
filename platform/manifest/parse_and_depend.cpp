#include <algorithm>
#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/manifest.h"
#include "base/mutex.h"
#include "core/log.h"
#include "platform/manifest/manifest_loader.h"
#include "platform/manifest/pattern.h"

namespace ProcMgr {

struct ParseAndDepend::State {
  Mutex mutex;
  // What the last parse of each application found; the bring-up asks by name only.
  std::map<std::string, std::set<std::string>> dependencies GUARDED_BY(mutex);
  Manifest::PatternCache patterns;
};

ParseAndDepend::ParseAndDepend() : state_(std::make_unique<State>()) {}
ParseAndDepend::~ParseAndDepend() = default;

ParseAndDepend& ParseAndDepend::Instance() {
  static ParseAndDepend instance;
  return instance;
}

int ParseAndDepend::ParseYaml(ParamType /*type*/, const std::string& path,
                              std::vector<ApplicationManifest>& manifests,
                              const std::map<std::string, std::string>& matchData) {
  static constexpr int kFailed = 1;
  try {
    Manifest::Faults faults;
    Manifest::ManifestLoader loader(matchData, faults);
    loader.Load(path);
    faults.Finish();
    if (faults.HasErrors()) {
      return kFailed;
    }
    std::vector<ApplicationManifest>& loaded = loader.Applications();
    manifests.reserve(manifests.size() + loaded.size());
    const MutexLock lock(state_->mutex);
    for (ApplicationManifest& manifest : loaded) {
      state_->dependencies[manifest.GetAppName()] = manifest.GetDependList();
    }
    std::move(loaded.begin(), loaded.end(), std::back_inserter(manifests));
    return 0;
  } catch (const std::bad_alloc&) {
    LogError("a service file can't be loaded: there is no memory for it");
    return kFailed;
  } catch (const std::exception& failure) {
    LogError("%s:1:1: the file can't be loaded: %s", path.c_str(), failure.what());
    return kFailed;
  }
}

void ParseAndDepend::GetStartGraph(const std::vector<std::string>& names, DependGraph& graph) {
  const std::set<std::string> vertices(names.begin(), names.end());
  const MutexLock lock(state_->mutex);
  for (const std::string& name : vertices) {
    std::set<std::string> among;
    const auto known = state_->dependencies.find(name);
    if (known != state_->dependencies.end()) {
      std::copy_if(known->second.begin(), known->second.end(), std::inserter(among, among.end()),
                   [&vertices](const std::string& other) { return vertices.contains(other); });
    }
    graph.AddVertex(name, among);
  }
}

bool ParseAndDepend::IsDynamicPara(const std::string& text) const {
  return Manifest::HasExpression(text);
}

bool ParseAndDepend::IsDynamicParaMatch(const std::string& pattern,
                                        const std::string& value) const {
  return state_->patterns.Matches(pattern, value);
}

}  // namespace ProcMgr
