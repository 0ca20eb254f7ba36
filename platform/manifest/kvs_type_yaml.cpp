#include "platform/manifest/kvs_type_yaml.h"

#include <exception>
#include <utility>

#include "base/small_file.h"
#include "base/text.h"
#include "platform/manifest/manifest_values.h"
#include "platform/manifest/yaml_tree.h"

namespace ProcMgr {

using Manifest::YamlDocument;
using Manifest::YamlNode;

namespace {

bool Is(const std::shared_ptr<const YamlNode>& node, YamlNode::Kind kind) {
  return node != nullptr && node->kind == kind;
}

}  // namespace

bool KvsTypeYaml::InitYamlNode(const std::string& path) {
  try {
    std::string text;
    const auto document = std::make_shared<YamlDocument>();
    if (ReadSmallFile(path, kConfigFileLimit, text) != 0 ||
        Manifest::ParseYamlText(text, *document)) {
      return false;
    }
    node_ = std::shared_ptr<const YamlNode>(document, &document->Root());
    key_.clear();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool KvsTypeYaml::GetSubKvs(const std::string& key, KvsTypeYaml& out) const {
  if (!Is(node_, YamlNode::Kind::kMapping)) {
    return false;
  }
  const YamlNode* const value = node_->Find(key);
  if (value == nullptr) {
    return false;
  }
  // `out` may be this very reader, and `key` its key.
  std::string found = key;
  out.node_ = std::shared_ptr<const YamlNode>(node_, value);
  out.key_ = std::move(found);
  return true;
}

bool KvsTypeYaml::GetArray(std::vector<KvsTypeYaml>& out) const {
  if (node_ == nullptr || !node_->IsCollection()) {
    return false;
  }
  std::vector<KvsTypeYaml> list(node_->children.size());
  for (std::size_t i = 0; i < list.size(); ++i) {
    YamlNode::Child child = node_->children[i];
    // A sequence of one-key mappings lists named things in a fixed order, as a mapping does.
    if (child.key == nullptr && child.value->kind == YamlNode::Kind::kMapping &&
        child.value->children.size() == 1) {
      child = child.value->children.front();
    }
    list[i].node_ = std::shared_ptr<const YamlNode>(node_, child.value);
    list[i].key_ = child.key == nullptr ? std::string() : child.key->text;
  }
  out = std::move(list);
  return true;
}

const std::string& KvsTypeYaml::GetKey() const {
  return key_;
}

bool KvsTypeYaml::GetString(std::string& out) const {
  if (!Is(node_, YamlNode::Kind::kScalar)) {
    return false;
  }
  out = node_->text;
  return true;
}

bool KvsTypeYaml::GetSequenceString(std::vector<std::string>& out) const {
  if (!Is(node_, YamlNode::Kind::kSequence)) {
    return false;
  }
  std::vector<std::string> texts;
  for (const YamlNode::Child& child : node_->children) {
    if (child.value->kind != YamlNode::Kind::kScalar) {
      return false;
    }
    texts.push_back(child.value->text);
  }
  out = std::move(texts);
  return true;
}

bool KvsTypeYaml::GetBool(bool& out) const {
  const auto value = node_ == nullptr ? std::nullopt : Manifest::BooleanOf(*node_);
  if (!value) {
    return false;
  }
  out = *value;
  return true;
}

bool KvsTypeYaml::GetUint64(std::uint64_t& out) const {
  const auto number =
      Is(node_, YamlNode::Kind::kScalar) ? ParseNumber<std::uint64_t>(node_->text) : std::nullopt;
  if (!number) {
    return false;
  }
  out = *number;
  return true;
}

}  // namespace ProcMgr
