#include "core/base_service_file.h"

#include <algorithm>
#include <utility>

namespace ProcMgr {

bool BaseServiceFile::Load(const std::string& path) {
  if (IsCurrent(path)) {
    return true;
  }
  Clear();
  path_ = path;
  // Looked at before it is read: what changes meanwhile is read again.
  for (const char* const file : {path.c_str(), "/etc/passwd", "/etc/group"}) {
    sources_.emplace(file, StateOfFile(file));
  }
  if (ParseAndDepend::Instance().ParseYaml(ParamType::kDefault, path, manifests_, {}) != 0) {
    return false;
  }
  for (std::size_t i = 0; i < manifests_.size(); ++i) {
    byName_.emplace(manifests_[i].GetAppName(), i);
    const std::string& file = manifests_[i].GetCfgPath();
    if (!sources_.contains(file)) {
      sources_.emplace(file, StateOfFile(file.c_str()));
    }
  }
  isLoaded_ = true;
  return true;
}

const ApplicationManifest* BaseServiceFile::Find(const std::string& name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &manifests_[found->second];
}

void BaseServiceFile::NoteOther(const std::string& name) {
  isLoaded_ = isLoaded_ && !byName_.contains(name);
}

void BaseServiceFile::Clear() {
  *this = BaseServiceFile();
}

bool BaseServiceFile::IsCurrent(const std::string& path) const {
  return isLoaded_ && path == path_ &&
         std::all_of(sources_.begin(), sources_.end(), [](const auto& source) {
           return source.second == StateOfFile(source.first.c_str());
         });
}

}  // namespace ProcMgr
