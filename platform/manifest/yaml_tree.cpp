#include "platform/manifest/yaml_tree.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/mark.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "base/printable.h"
#include "platform/manifest/nesting.h"
#include "platform/manifest/utf8.h"

namespace ProcMgr::Manifest {
namespace {

Place PlaceOf(const YAML::Mark& mark) {
  // A null mark has -1 everywhere.
  return {std::max(mark.line, 0) + 1, std::max(mark.column, 0) + 1};
}

Place PlaceOf(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  const auto line = static_cast<int>(std::count(before.begin(), before.end(), '\n'));
  const auto column = static_cast<int>(offset - (before.rfind('\n') + 1));
  return {line + 1, column + 1};
}

std::string TooDeep() {
  return "collections nest deeper than " + std::to_string(kMaxYamlDepth) +
         " levels; a service file needs four";
}

// The word for null that stands at the beginning of `text`; empty if there is none.
std::string_view NullWordAt(std::string_view text) {
  static constexpr std::array<std::string_view, 4> kWords = {"~", "null", "Null", "NULL"};
  const auto* const word =
      std::find_if(kWords.begin(), kWords.end(), [text](auto w) { return text.starts_with(w); });
  return word == kWords.end() ? std::string_view() : *word;
}

// A fault that the tree builder finds, told in its own words. A throw is the only way to stop
// yaml-cpp's parser.
class BuilderFault : public YAML::ParserException {
 public:
  using YAML::ParserException::ParserException;
};

}  // namespace

const YamlNode* YamlNode::Find(std::string_view name) const {
  for (const Child& child : children) {
    if (child.key != nullptr && !child.key->IsCollection() && child.key->text == name) {
      return child.value;
    }
  }
  return nullptr;
}

// Receives the events of one document.
class TreeBuilder : public YAML::EventHandler {
 public:
  TreeBuilder(std::string_view text, YamlDocument& out) : text_(text), out_(out) {}

  void OnDocumentStart(const YAML::Mark& mark) override {
    if (out_.root_ != nullptr) {
      throw BuilderFault(mark, "a second document begins; one file holds one document");
    }
  }
  void OnDocumentEnd() override {}

  // An empty value has the place of whatever follows it, which helps nobody; its key's is better.
  // If what follows is the word "null", only the next event tells whose word it is.
  void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    const YamlNode* const key = levels_.empty() ? nullptr : levels_.back().key;
    YamlNode& node = AddLeaf(mark, YamlNode::Kind::kNull, anchor);
    if (mark.pos >= 0 && static_cast<std::size_t>(mark.pos) < text_.size()) {
      node.text = NullWordAt(text_.substr(static_cast<std::size_t>(mark.pos)));
    }
    if (node.text.empty()) {
      MakeEmpty(node, key);
    } else {
      lastNull_ = {&node, key, mark.pos};
    }
  }

  void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    const YamlNode* const target = anchor < anchors_.size() ? anchors_[anchor] : nullptr;
    if (target == nullptr || target->weight == 0) {
      throw BuilderFault(mark, "an alias stands inside of the value that it refers to");
    }
    Grow(mark, target->weight);
    Attach(mark, target);
  }

  void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                const std::string& value) override {
    YamlNode& node = AddLeaf(mark, YamlNode::Kind::kScalar, anchor);
    Grow(mark, value.size());
    node.weight += value.size();
    node.text = value;
    // yaml-cpp's own tag for a scalar that isn't plain is "!".
    node.isQuoted = tag == "!" || tag == "tag:yaml.org,2002:str";
  }

  void OnSequenceStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                       YAML::EmitterStyle::value /*style*/) override {
    Open(mark, YamlNode::Kind::kSequence, anchor);
  }
  void OnSequenceEnd() override { Close(); }

  void OnMapStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t anchor,
                  YAML::EmitterStyle::value /*style*/) override {
    Open(mark, YamlNode::Kind::kMapping, anchor);
  }
  void OnMapEnd() override { Close(); }

 private:
  // A collection that the parser is inside of.
  struct Level {
    YamlNode* node;
    // A mapping's key that still waits for its value.
    const YamlNode* key;
    std::size_t expandedBefore;
  };

  // A null that seems to be a word, until the next event.
  struct NullWord {
    YamlNode* node = nullptr;
    const YamlNode* key = nullptr;
    int pos = 0;
  };

  static void MakeEmpty(YamlNode& node, const YamlNode* key) {
    node.text.clear();
    if (key != nullptr) {
      node.place = key->place;
    }
  }

  YamlNode& Add(const YAML::Mark& mark, YamlNode::Kind kind, YAML::anchor_t anchor) {
    YamlNode& node = out_.nodes_.emplace_back();
    node.kind = kind;
    node.place = PlaceOf(mark);
    if (anchor != YAML::NullAnchor) {
      anchors_.resize(std::max<std::size_t>(anchors_.size(), anchor + 1));
      anchors_[anchor] = &node;
    }
    Attach(mark, &node);
    Grow(mark, 1);
    return node;
  }

  YamlNode& AddLeaf(const YAML::Mark& mark, YamlNode::Kind kind, YAML::anchor_t anchor) {
    YamlNode& node = Add(mark, kind, anchor);
    node.weight = 1;
    return node;
  }

  void Attach(const YAML::Mark& mark, const YamlNode* node) {
    if (lastNull_.node != nullptr && lastNull_.pos == mark.pos) {
      MakeEmpty(*lastNull_.node, lastNull_.key);
    }
    lastNull_ = {};
    if (levels_.empty()) {
      out_.root_ = node;
      return;
    }
    Level& level = levels_.back();
    if (level.node->kind == YamlNode::Kind::kSequence) {
      level.node->children.push_back({nullptr, node});
    } else if (level.key == nullptr) {
      level.key = node;
    } else {
      level.node->children.push_back({level.key, node});
      level.key = nullptr;
    }
  }

  void Grow(const YAML::Mark& mark, std::size_t weight) {
    expanded_ += weight;
    if (expanded_ > kMaxYamlExpansion) {
      throw BuilderFault(mark, "the aliases of this file write out to more than " +
                                   std::to_string(kMaxYamlExpansion) + " bytes; use fewer of them");
    }
  }

  void Open(const YAML::Mark& mark, YamlNode::Kind kind, YAML::anchor_t anchor) {
    if (levels_.size() == kMaxYamlDepth) {
      throw BuilderFault(mark, TooDeep());
    }
    const std::size_t before = expanded_;
    levels_.push_back({&Add(mark, kind, anchor), nullptr, before});
  }

  void Close() {
    const Level& level = levels_.back();
    level.node->weight = expanded_ - level.expandedBefore;
    levels_.pop_back();
  }

  std::string_view text_;
  YamlDocument& out_;
  std::vector<Level> levels_;
  // By the parser's number of the anchor.
  std::vector<const YamlNode*> anchors_;
  std::size_t expanded_ = 0;
  NullWord lastNull_;
};

std::optional<YamlFault> ParseYamlText(std::string_view text, YamlDocument& out) {
  static constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  if (const auto bad = FindBadByte(text)) {
    return YamlFault{PlaceOf(text, *bad),
                     "the byte " + Quoted(text.substr(*bad, 1)) +
                         " can't stand in a YAML file; it must be UTF-8 text without control "
                         "characters"};
  }
  if (const auto deep = FindDeepNesting(text)) {
    return YamlFault{PlaceOf(text, *deep), TooDeep()};
  }
  try {
    std::istringstream stream{std::string(text)};
    YAML::Parser parser(stream);
    TreeBuilder builder(text, out);
    if (!parser.HandleNextDocument(builder)) {
      return YamlFault{{}, "the file holds nothing; it must hold a YAML mapping"};
    }
    (void)parser.HandleNextDocument(builder);  // Throws if there is a second one.
    return std::nullopt;
  } catch (const BuilderFault& fault) {
    return YamlFault{PlaceOf(fault.mark), fault.msg};
  } catch (const YAML::Exception& fault) {
    return YamlFault{PlaceOf(fault.mark), "this isn't YAML: " + Printable(fault.msg) +
                                              "; correct what stands here or just before"};
  }
}

}  // namespace ProcMgr::Manifest
