// The values of a service file, each read as the type that its key wants.
#ifndef PLATFORM_MANIFEST_MANIFEST_VALUES_H
#define PLATFORM_MANIFEST_MANIFEST_VALUES_H

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/manifest.h"
#include "platform/manifest/faults.h"
#include "platform/manifest/yaml_tree.h"

namespace ProcMgr::Manifest {

// A service file that is being read.
struct SourceFile {
  // As it stands in fault lines.
  std::string shownPath;
  std::string resolvedPath;
  // The folder that stands for "/" in the paths of the file; empty for this machine.
  std::string root = {};

  // Where on this machine the file's `path` leads, links aside.
  [[nodiscard]] std::filesystem::path PathOf(const std::string& path) const {
    return path.starts_with('/') ? std::filesystem::path(root + path)
                                 : std::filesystem::path(resolvedPath).parent_path() / path;
  }
};

// What a scalar is by the core schema of YAML 1.2, in which "yes" and "on" are texts.
enum class ScalarType { kNull, kBoolean, kInteger, kFloat, kText };

[[nodiscard]] ScalarType TypeOf(const YamlNode& scalar);

// The value of a boolean or an integer; none for other nodes, or if the number doesn't fit.
[[nodiscard]] std::optional<bool> BooleanOf(const YamlNode& node);
[[nodiscard]] std::optional<std::int64_t> IntegerOf(const YamlNode& node);

// Reads values of one file. Each operation yields false, with its output untouched, after it has
// told the fault.
class ValueReader {
 public:
  ValueReader(const SourceFile& file, Faults& faults) : file_(file), faults_(faults) {}

  // Tells that `what` ("nice", "an element of arguments") isn't as it must be.
  void Wrong(const YamlNode& node, std::string_view what, std::string_view must);
  void Error(const Place& place, const std::string& text);
  void Warning(const Place& place, const std::string& text);

  [[nodiscard]] bool Mapping(const YamlNode& node, std::string_view what);
  [[nodiscard]] bool Sequence(const YamlNode& node, std::string_view what);
  [[nodiscard]] bool Boolean(const YamlNode& node, std::string_view what, bool& out);
  [[nodiscard]] bool Integer(const YamlNode& node, std::string_view what, std::int64_t low,
                             std::int64_t high, std::int64_t& out);
  // A text that YAML doesn't take for a number, a boolean or nothing.
  [[nodiscard]] bool Text(const YamlNode& node, std::string_view what, std::string& out);
  // Any scalar, as the text that stands in the file.
  [[nodiscard]] bool ScalarText(const YamlNode& node, std::string_view what, std::string& out);

  [[nodiscard]] bool ScalarTexts(const YamlNode& node, std::string_view what,
                                 std::vector<std::string>& out);
  [[nodiscard]] bool Names(const YamlNode& node, std::string_view what, std::set<std::string>& out);
  [[nodiscard]] bool TextMap(const YamlNode& node, std::string_view what,
                             std::map<std::string, std::string>& out);
  [[nodiscard]] bool Cores(const YamlNode& node, std::string_view what,
                           std::vector<std::uint32_t>& out);
  [[nodiscard]] bool Groups(const YamlNode& node, std::string_view what,
                            std::vector<SharepoolGroupsInfo>& out);

  // The id behind a name of the user database, which is asked once for a file: a file of a thousand
  // applications names a few users, and each question reads the database.
  using IdFinder = std::optional<std::uint32_t> (*)(const std::string& name);
  [[nodiscard]] std::optional<std::uint32_t> Id(IdFinder find, const std::string& name);

  // Tells that `key` isn't among `known`, naming the nearest of them.
  void UnknownKey(const YamlNode& key, std::span<const std::string_view> known);

  [[nodiscard]] const SourceFile& File() const { return file_; }

 private:
  // One element of Groups().
  [[nodiscard]] bool Group(const YamlNode& node, SharepoolGroupsInfo& out);

  const SourceFile& file_;
  Faults& faults_;
  std::map<std::pair<IdFinder, std::string>, std::optional<std::uint32_t>> ids_;
};

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_MANIFEST_VALUES_H
