// A YAML file as a read-only tree, each value with its place.
//
// yaml-cpp scans and parses; the tree is built here from its events, because its own nodes lose the
// places of keys, the doubles of a mapping and whether a scalar stood in quotes. The limits against
// hostile files are enforced while the events come: depth, expansion of aliases, circles.
#ifndef PLATFORM_MANIFEST_YAML_TREE_H
#define PLATFORM_MANIFEST_YAML_TREE_H

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/manifest/place.h"

namespace ProcMgr::Manifest {

// How deep collections may nest. yaml-cpp recurses once a level, on threads with small stacks too.
inline constexpr std::size_t kMaxYamlDepth = 64;
// What a file may weigh once its aliases are written out: a byte for each byte of a scalar and one
// for each value.
inline constexpr std::size_t kMaxYamlExpansion = std::size_t{4} << 20;

struct YamlNode {
  enum class Kind { kNull, kScalar, kSequence, kMapping };
  // An element of a sequence (key is null), or an entry of a mapping (it isn't).
  struct Child {
    const YamlNode* key;
    const YamlNode* value;
  };

  Kind kind = Kind::kNull;
  // In quotes, a block scalar, or tagged as a string: a text, whatever it looks like.
  bool isQuoted = false;
  Place place;
  // A scalar's text; of a null the word that stands for it ("~", "null") or nothing.
  std::string text;
  std::vector<Child> children;
  // With aliases written out; 0 while the parser is still inside of the node.
  std::size_t weight = 0;

  [[nodiscard]] bool IsCollection() const {
    return kind == Kind::kSequence || kind == Kind::kMapping;
  }
  // The value of a mapping's first entry with the key `name`; null if there is none.
  [[nodiscard]] const YamlNode* Find(std::string_view name) const;
};

// The nodes live in one arena and point to each other, so that aliases share a node, and so that
// the end of a document takes no recursion. Immutable once parsed.
class YamlDocument {
 public:
  [[nodiscard]] const YamlNode& Root() const { return *root_; }
  [[nodiscard]] const std::deque<YamlNode>& Nodes() const { return nodes_; }

 private:
  friend class TreeBuilder;
  std::deque<YamlNode> nodes_;
  const YamlNode* root_ = nullptr;
};

struct YamlFault {
  Place place;
  // Printable and bounded.
  std::string text;
};

// Parses `text`, which holds exactly one document, into `out`. Yields the fault that stopped it, if
// any; `out` is then not to be used. Throws nothing but std::bad_alloc.
[[nodiscard]] std::optional<YamlFault> ParseYamlText(std::string_view text, YamlDocument& out);

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_YAML_TREE_H
