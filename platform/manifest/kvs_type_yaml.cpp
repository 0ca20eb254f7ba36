#include "platform/manifest/kvs_type_yaml.h"

#include <exception>
#include <utility>

#include "core/small_file.h"
#include "core/text.h"
#include "platform/manifest/manifest_values.h"
#include "platform/manifest/yaml_tree.h"

namespace ProcMgr {

using Manifest::YamlDocument;
using Manifest::YamlNode;

struct KvsTypeYaml::Node {
  std::shared_ptr<const YamlDocument> document;
  // Of the document; null before InitYamlNode.
  const YamlNode* value = nullptr;
  std::string key;

  [[nodiscard]] bool Is(YamlNode::Kind kind) const {
    return value != nullptr && value->kind == kind;
  }
};

KvsTypeYaml::KvsTypeYaml() : node_(std::make_unique<Node>()) {}
KvsTypeYaml::~KvsTypeYaml() = default;
KvsTypeYaml::KvsTypeYaml(const KvsTypeYaml& other) : node_(std::make_unique<Node>(*other.node_)) {}
KvsTypeYaml& KvsTypeYaml::operator=(const KvsTypeYaml& other) {
  *node_ = *other.node_;
  return *this;
}
// A moved-from reader stays usable: it swaps instead of giving its node away.
KvsTypeYaml::KvsTypeYaml(KvsTypeYaml&& other) noexcept : KvsTypeYaml() {
  node_.swap(other.node_);
}
KvsTypeYaml& KvsTypeYaml::operator=(KvsTypeYaml&& other) noexcept {
  node_.swap(other.node_);
  return *this;
}

bool KvsTypeYaml::InitYamlNode(const std::string& path) {
  try {
    std::string text;
    const auto document = std::make_shared<YamlDocument>();
    if (ReadSmallFile(path, kConfigFileLimit, text) != 0 ||
        Manifest::ParseYamlText(text, *document)) {
      return false;
    }
    *node_ = {document, &document->Root(), {}};
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool KvsTypeYaml::GetSubKvs(const std::string& key, KvsTypeYaml& out) const {
  if (!node_->Is(YamlNode::Kind::kMapping)) {
    return false;
  }
  const YamlNode* const value = node_->value->Find(key);
  if (value == nullptr) {
    return false;
  }
  // `out` may be this very reader.
  Node found{node_->document, value, key};
  *out.node_ = std::move(found);
  return true;
}

bool KvsTypeYaml::GetArray(std::vector<KvsTypeYaml>& out) const {
  if (node_->value == nullptr || !node_->value->IsCollection()) {
    return false;
  }
  std::vector<KvsTypeYaml> list(node_->value->children.size());
  for (std::size_t i = 0; i < list.size(); ++i) {
    YamlNode::Child child = node_->value->children[i];
    // A sequence of one-key mappings lists named things in a fixed order, as a mapping does.
    if (child.key == nullptr && child.value->kind == YamlNode::Kind::kMapping &&
        child.value->children.size() == 1) {
      child = child.value->children.front();
    }
    *list[i].node_ = {node_->document, child.value,
                      child.key == nullptr ? std::string() : child.key->text};
  }
  out = std::move(list);
  return true;
}

const std::string& KvsTypeYaml::GetKey() const {
  return node_->key;
}

bool KvsTypeYaml::GetString(std::string& out) const {
  if (!node_->Is(YamlNode::Kind::kScalar)) {
    return false;
  }
  out = node_->value->text;
  return true;
}

bool KvsTypeYaml::GetSequenceString(std::vector<std::string>& out) const {
  if (!node_->Is(YamlNode::Kind::kSequence)) {
    return false;
  }
  std::vector<std::string> texts;
  for (const YamlNode::Child& child : node_->value->children) {
    if (child.value->kind != YamlNode::Kind::kScalar) {
      return false;
    }
    texts.push_back(child.value->text);
  }
  out = std::move(texts);
  return true;
}

bool KvsTypeYaml::GetBool(bool& out) const {
  const auto value = node_->value == nullptr ? std::nullopt : Manifest::BooleanOf(*node_->value);
  if (!value) {
    return false;
  }
  out = *value;
  return true;
}

bool KvsTypeYaml::GetUint64(std::uint64_t& out) const {
  const auto number = node_->Is(YamlNode::Kind::kScalar)
                          ? ParseNumber<std::uint64_t>(node_->value->text)
                          : std::nullopt;
  if (!number) {
    return false;
  }
  out = *number;
  return true;
}

}  // namespace ProcMgr
