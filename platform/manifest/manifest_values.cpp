#include "platform/manifest/manifest_values.h"

#include <array>

#include "base/nearest_word.h"
#include "base/printable.h"
#include "platform/manifest/core_list.h"
#include "platform/manifest/key_info.h"

namespace ProcMgr::Manifest {
namespace {

std::string Describe(const YamlNode& node) {
  switch (node.kind) {
    case YamlNode::Kind::kSequence:
      return "a list";
    case YamlNode::Kind::kMapping:
      return "a mapping";
    case YamlNode::Kind::kNull:
      return "empty";
    case YamlNode::Kind::kScalar:
      break;
  }
  switch (TypeOf(node)) {
    case ScalarType::kBoolean:
      return "the boolean " + Printable(node.text);
    case ScalarType::kInteger:
    case ScalarType::kFloat:
      return "the number " + Printable(node.text);
    case ScalarType::kNull:
    case ScalarType::kText:
      break;
  }
  return Quoted(node.text);
}

std::string ElementOf(std::string_view what) {
  return "an element of " + std::string(what);
}

}  // namespace

void ValueReader::Error(const Place& place, const std::string& text) {
  faults_.Error(file_.shownPath, place, text);
}

void ValueReader::Warning(const Place& place, const std::string& text) {
  faults_.Warning(file_.shownPath, place, text);
}

void ValueReader::Wrong(const YamlNode& node, std::string_view what, std::string_view must) {
  Error(node.place,
        std::string(what) + " is " + Describe(node) + "; it must be " + std::string(must));
}

std::optional<std::uint32_t> ValueReader::Id(IdFinder find, const std::string& name) {
  const auto [known, isNew] = ids_.try_emplace({find, name});
  if (isNew) {
    known->second = find(name);
  }
  return known->second;
}

void ValueReader::UnknownKey(const YamlNode& key, std::span<const std::string_view> known) {
  if (faults_.IsFull()) {
    Warning(key.place, {});  // Counted only; the search for the nearest is the dear part.
    return;
  }
  Warning(key.place, "the key " + Quoted(key.text) +
                         " is unknown and ignored; the nearest known is " +
                         Quoted(NearestWord(key.text, known)));
}

bool ValueReader::Mapping(const YamlNode& node, std::string_view what) {
  if (node.kind != YamlNode::Kind::kMapping) {
    Wrong(node, what, "a mapping");
    return false;
  }
  return true;
}

bool ValueReader::Sequence(const YamlNode& node, std::string_view what) {
  if (node.kind != YamlNode::Kind::kSequence) {
    Wrong(node, what, "a list");
    return false;
  }
  return true;
}

bool ValueReader::Boolean(const YamlNode& node, std::string_view what, bool& out) {
  const std::optional<bool> value = BooleanOf(node);
  if (!value) {
    Wrong(node, what, "true or false");
    return false;
  }
  out = *value;
  return true;
}

bool ValueReader::Integer(const YamlNode& node, std::string_view what, std::int64_t low,
                          std::int64_t high, std::int64_t& out) {
  const std::optional<std::int64_t> value = IntegerOf(node);
  if (!value || *value < low || *value > high) {
    Wrong(node, what, "a whole number from " + std::to_string(low) + " to " + std::to_string(high));
    return false;
  }
  out = *value;
  return true;
}

bool ValueReader::Text(const YamlNode& node, std::string_view what, std::string& out) {
  if (node.IsCollection() || TypeOf(node) != ScalarType::kText) {
    Wrong(node, what, "a text; put quotes around a text that looks like something else");
    return false;
  }
  return ScalarText(node, what, out);
}

bool ValueReader::ScalarText(const YamlNode& node, std::string_view what, std::string& out) {
  if (node.IsCollection()) {
    Wrong(node, what, "a single value");
    return false;
  }
  // Every text ends up in a C string, which would silently lose what follows.
  if (node.text.find('\0') != std::string::npos) {
    Wrong(node, what, "a text without a zero byte");
    return false;
  }
  out = node.text;
  return true;
}

bool ValueReader::ScalarTexts(const YamlNode& node, std::string_view what,
                              std::vector<std::string>& out) {
  if (!Sequence(node, what)) {
    return false;
  }
  bool isGood = true;
  std::vector<std::string> texts(node.children.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    isGood = ScalarText(*node.children[i].value, ElementOf(what), texts[i]) && isGood;
  }
  if (isGood) {
    out = std::move(texts);
  }
  return isGood;
}

bool ValueReader::Names(const YamlNode& node, std::string_view what, std::set<std::string>& out) {
  if (!Sequence(node, what)) {
    return false;
  }
  bool isGood = true;
  std::set<std::string> names;
  for (const YamlNode::Child& child : node.children) {
    std::string name;
    if (!Text(*child.value, ElementOf(what), name)) {
      isGood = false;
    } else if (name.empty()) {
      Wrong(*child.value, ElementOf(what), "the name of an application");
      isGood = false;
    } else {
      names.insert(std::move(name));
    }
  }
  if (isGood) {
    out = std::move(names);
  }
  return isGood;
}

bool ValueReader::TextMap(const YamlNode& node, std::string_view what,
                          std::map<std::string, std::string>& out) {
  if (!Mapping(node, what)) {
    return false;
  }
  bool isGood = true;
  std::map<std::string, std::string> texts;
  for (const auto& [keyNode, valueNode] : node.children) {
    std::string key;
    std::string value;
    const bool isKeyGood = ScalarText(*keyNode, "a key of " + std::string(what), key);
    const bool isValueGood = ScalarText(*valueNode, ElementOf(what), value);
    if (isKeyGood && isValueGood) {
      texts.emplace(std::move(key), std::move(value));
    } else {
      isGood = false;
    }
  }
  if (isGood) {
    out = std::move(texts);
  }
  return isGood;
}

bool ValueReader::Cores(const YamlNode& node, std::string_view what,
                        std::vector<std::uint32_t>& out) {
  static constexpr std::string_view kMust =
      "a core number from 0 to 1023 or a rising range like 2-3";
  CoreList cores;
  if (node.kind == YamlNode::Kind::kScalar) {
    if (!cores.Append(node.text)) {
      Wrong(node, what, R"(a list of core numbers and ranges, like [0, 2-3] or "0-3,7")");
      return false;
    }
    out = cores.Cores();
    return true;
  }
  if (!Sequence(node, what)) {
    return false;
  }
  bool isGood = true;
  for (const YamlNode::Child& child : node.children) {
    if (child.value->kind != YamlNode::Kind::kScalar || !cores.Append(child.value->text)) {
      Wrong(*child.value, ElementOf(what), kMust);
      isGood = false;
    }
  }
  if (isGood) {
    out = cores.Cores();
  }
  return isGood;
}

bool ValueReader::Group(const YamlNode& node, SharepoolGroupsInfo& out) {
  if (!Mapping(node, "an element of sharepoolGroups")) {
    return false;
  }
  bool isGood = true;
  for (const auto& [key, value] : node.children) {
    if (key->text == kGroupKeys[0]) {
      isGood = Text(*value, kGroupKeys[0], out.groupName) && isGood;
    } else if (key->text == kGroupKeys[1]) {
      isGood = Text(*value, kGroupKeys[1], out.permission) && isGood;
    } else {
      UnknownKey(*key, kGroupKeys);
    }
  }
  if (isGood && out.groupName.empty()) {
    Error(node.place, "the element of sharepoolGroups has no groupName; name the group");
    return false;
  }
  return isGood;
}

bool ValueReader::Groups(const YamlNode& node, std::string_view what,
                         std::vector<SharepoolGroupsInfo>& out) {
  if (!Sequence(node, what)) {
    return false;
  }
  bool isGood = true;
  std::vector<SharepoolGroupsInfo> groups(node.children.size());
  for (std::size_t i = 0; i < groups.size(); ++i) {
    isGood = Group(*node.children[i].value, groups[i]) && isGood;
  }
  if (isGood) {
    out = std::move(groups);
  }
  return isGood;
}

}  // namespace ProcMgr::Manifest
