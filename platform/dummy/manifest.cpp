#include "app/manifest.h"

#include "platform/manifest/kvs_type_yaml.h"

namespace ProcMgr {

// No file can be read: every parse fails, and a graph holds nobody back.

struct DependGraph::State {
  std::set<std::string> names;
};

DependGraph::DependGraph() : state_(std::make_unique<State>()) {}

DependGraph::~DependGraph() = default;

DependGraph::DependGraph(DependGraph&& other) noexcept = default;

void DependGraph::AddVertex(const std::string& name,
                            const std::set<std::string>& /*dependencies*/) {
  state_->names.insert(name);
}

std::set<std::string> DependGraph::GetNoDependVertices() {
  return state_->names;
}

void DependGraph::Pop(const std::string& name) {
  state_->names.erase(name);
}

bool DependGraph::IsEmpty() const {
  return state_->names.empty();
}

struct ParseAndDepend::State {};

ParseAndDepend::ParseAndDepend() = default;

ParseAndDepend::~ParseAndDepend() = default;

ParseAndDepend& ParseAndDepend::Instance() {
  static ParseAndDepend instance;
  return instance;
}

int ParseAndDepend::ParseYaml(ParamType /*type*/, const std::string& /*path*/,
                              std::vector<ApplicationManifest>& /*manifests*/,
                              const std::map<std::string, std::string>& /*matchData*/) {
  return -1;
}

void ParseAndDepend::GetStartGraph(const std::vector<std::string>& names, DependGraph& graph) {
  for (const std::string& name : names) {
    graph.AddVertex(name, {});
  }
}

bool ParseAndDepend::IsDynamicPara(const std::string& /*text*/) const {
  return false;
}

bool ParseAndDepend::IsDynamicParaMatch(const std::string& /*pattern*/,
                                        const std::string& /*value*/) const {
  return false;
}

bool KvsTypeYaml::InitYamlNode(const std::string& /*path*/) {
  return false;
}

bool KvsTypeYaml::GetSubKvs(const std::string& /*key*/, KvsTypeYaml& /*out*/) const {
  return false;
}

bool KvsTypeYaml::GetArray(std::vector<KvsTypeYaml>& /*out*/) const {
  return false;
}

const std::string& KvsTypeYaml::GetKey() const {
  return key_;
}

bool KvsTypeYaml::GetString(std::string& /*out*/) const {
  return false;
}

bool KvsTypeYaml::GetSequenceString(std::vector<std::string>& /*out*/) const {
  return false;
}

bool KvsTypeYaml::GetBool(bool& /*out*/) const {
  return false;
}

bool KvsTypeYaml::GetUint64(std::uint64_t& /*out*/) const {
  return false;
}

}  // namespace ProcMgr
