#include "platform/manifest/manifest_loader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "base/printable.h"
#include "base/root_path.h"
#include "base/small_file.h"
#include "base/standard_path.h"
#include "platform/manifest/manifest_keys.h"

namespace ProcMgr::Manifest {
namespace {

constexpr std::string_view kApplications = "applications";
constexpr std::string_view kInclude = "include";

std::string ReadFailure(int error) {
  if (error == EFBIG) {
    return "is larger than " + std::to_string(kConfigFileLimit) +
           " bytes; divide it into files that it includes";
  }
  return "can't be read (" + std::generic_category().message(error) +
         "); it must be a readable file";
}

bool HasApplicationKey(const YamlNode& mapping) {
  return std::any_of(
      mapping.children.begin(), mapping.children.end(),
      [](const YamlNode::Child& child) { return IsApplicationKey(child.key->text); });
}

// False with errno if it isn't there.
bool Resolve(SourceFile& file) {
  if (!IsBelow(file.root, file.shownPath)) {
    return StandardizationPath(file.shownPath, file.resolvedPath);
  }
  const auto found = ResolveInRoot(file.root, file.shownPath.substr(file.root.size()));
  errno = ENOENT;
  file.resolvedPath = found.value_or("");
  return found.has_value();
}

}  // namespace

void ManifestLoader::Load(const std::string& path) {
  LoadFile(path, {path, {}});
}

void ManifestLoader::LoadFile(const std::string& shownPath, const Origin& origin) {
  SourceFile file{shownPath, {}, root_};
  errno = 0;  // Stays so for a path that is too long to be tried.
  if (!Resolve(file)) {
    faults_.Error(origin.file, origin.place,
                  Quoted(shownPath) + ' ' + ReadFailure(errno == 0 ? ENAMETOOLONG : errno));
    areNamesKnown_ = false;
    return;
  }
  YamlDocument document;
  ValueReader reader(file, faults_);
  if (!CheckChain(file, origin) || !Read(file, origin, document) ||
      !CheckKeysOfMappings(reader, document)) {
    areNamesKnown_ = false;
    return;
  }
  chain_.push_back(file.resolvedPath);
  ReadTop(reader, document.Root());
  chain_.pop_back();
}

bool ManifestLoader::CheckChain(const SourceFile& file, const Origin& origin) {
  const auto again = std::find(chain_.begin(), chain_.end(), file.resolvedPath);
  if (again != chain_.end()) {
    std::string circle;
    for (auto step = again; step != chain_.end(); ++step) {
      circle += Printable(*step, kShownPathBytes) + " -> ";
    }
    faults_.Error(origin.file, origin.place,
                  "the includes go in a circle: " + circle +
                      Printable(file.resolvedPath, kShownPathBytes) + "; take one of them out");
    return false;
  }
  // The first file isn't included by any.
  if (chain_.size() > kMaxIncludeDepth) {
    faults_.Error(origin.file, origin.place,
                  "this include is the ninth in a row; includes may nest " +
                      std::to_string(kMaxIncludeDepth) + " deep");
    return false;
  }
  return true;
}

bool ManifestLoader::Read(const SourceFile& file, const Origin& origin, YamlDocument& document) {
  std::string text;
  const int error = ReadSmallFile(file.resolvedPath, kConfigFileLimit, text);
  if (error != 0) {
    faults_.Error(origin.file, origin.place, Quoted(file.shownPath) + ' ' + ReadFailure(error));
    return false;
  }
  ++files_;
  bytes_ += text.size();
  if (files_ > kMaxLoadFiles || bytes_ > kMaxLoadBytes) {
    faults_.Error(origin.file, origin.place,
                  "the files of this load are too many; they must be at most " +
                      std::to_string(kMaxLoadFiles) + " with " + std::to_string(kMaxLoadBytes) +
                      " bytes in all");
    return false;
  }
  if (const auto fault = ParseYamlText(text, document)) {
    faults_.Error(file.shownPath, fault->place, fault->text);
    return false;
  }
  return true;
}

// A mapping that names a key twice leaves open which value holds, so its file isn't read further.
bool ManifestLoader::CheckKeysOfMappings(ValueReader& reader, const YamlDocument& document) {
  bool isGood = true;
  for (const YamlNode& node : document.Nodes()) {
    if (node.kind != YamlNode::Kind::kMapping) {
      continue;
    }
    std::unordered_map<std::string_view, Place> places;
    for (const YamlNode::Child& child : node.children) {
      if (child.key->IsCollection()) {
        reader.Wrong(*child.key, "a key", "a single word");
        isGood = false;
        continue;
      }
      const auto [first, isNew] = places.emplace(child.key->text, child.key->place);
      if (!isNew) {
        reader.Error(child.key->place, "the key " + Quoted(child.key->text) +
                                           " stands here a second time, first at " +
                                           PlaceText(reader.File().shownPath, first->second) +
                                           "; a mapping has each key once");
        isGood = false;
      }
    }
  }
  return isGood;
}

void ManifestLoader::ReadTop(ValueReader& reader, const YamlNode& top) {
  static constexpr std::array<std::string_view, 1> kKnown = {kApplications};
  const bool isIncluded = chain_.size() > 1;
  if (isIncluded && top.kind == YamlNode::Kind::kSequence) {
    ReadList(reader, top);
    return;
  }
  if (!reader.Mapping(top, "the file")) {
    return;
  }
  const YamlNode* const list = top.Find(kApplications);
  if (list != nullptr) {
    for (const YamlNode::Child& child : top.children) {
      if (child.key->text != kApplications) {
        reader.UnknownKey(*child.key, kKnown);
      }
    }
    ReadList(reader, *list);
  } else if (isIncluded && HasApplicationKey(top)) {
    ReadApplicationEntry(reader, top);
  } else {
    reader.Error(top.place, isIncluded
                                ? "the file holds no application; it must hold \"applications:\" "
                                  "with a list, or the mapping of one application"
                                : "the file has no list of applications; it must begin with "
                                  "\"applications:\"");
  }
}

void ManifestLoader::ReadList(ValueReader& reader, const YamlNode& list) {
  if (!reader.Sequence(list, kApplications)) {
    return;
  }
  for (const YamlNode::Child& child : list.children) {
    ReadEntry(reader, *child.value);
  }
}

void ManifestLoader::ReadEntry(ValueReader& reader, const YamlNode& entry) {
  if (!reader.Mapping(entry, "an element of applications")) {
    return;
  }
  const YamlNode* const include = entry.Find(kInclude);
  if (include != nullptr) {
    ReadInclude(reader, entry, *include);
  } else {
    ReadApplicationEntry(reader, entry);
  }
}

void ManifestLoader::ReadInclude(ValueReader& reader, const YamlNode& entry, const YamlNode& path) {
  static constexpr std::array<std::string_view, 1> kKnown = {kInclude};
  for (const YamlNode::Child& child : entry.children) {
    if (IsApplicationKey(child.key->text)) {
      reader.Error(child.key->place, "the key " + child.key->text +
                                         " stands beside an include; an include stands alone");
    } else if (child.key->text != kInclude) {
      reader.UnknownKey(*child.key, kKnown);
    }
  }
  std::string text;
  if (!reader.Text(path, kInclude, text)) {
    return;
  }
  if (text.empty()) {
    reader.Wrong(path, kInclude, "the path of a service file");
    return;
  }
  LoadFile(reader.File().PathOf(text).string(), {reader.File().shownPath, path.place});
}

void ManifestLoader::ReadApplicationEntry(ValueReader& reader, const YamlNode& entry) {
  ReadApplication application;
  const bool isGood = ReadApplicationMapping(reader, entry, application);
  if (application.fields.appName.empty() || !application.isMatchKnown) {
    areNamesKnown_ = false;
    return;
  }
  if (!IsTaken(application.match)) {
    return;
  }
  // Only what this load takes can clash: variants of one application for several machines have
  // one name and differ in what they match. Other faults don't hide a clash.
  const YamlNode& name = *entry.Find("appName");
  const auto [first, isNew] = placeOfName_.emplace(application.fields.appName,
                                                   PlaceText(reader.File().shownPath, name.place));
  if (!isNew) {
    reader.Error(name.place, "the application " + Quoted(application.fields.appName) +
                                 " is already described at " + first->second +
                                 "; each application must be described once");
    return;
  }
  if (!isGood) {
    return;
  }
  applications_.emplace_back(std::move(application.fields));
  if (places_ != nullptr) {
    NotePlacesOf(reader.File(), entry);
  }
}

void ManifestLoader::NotePlacesOf(const SourceFile& file, const YamlNode& entry) {
  ApplicationPlaces& places = places_->emplace_back();
  places.file = file.shownPath;
  places.application = entry.place;
  for (const auto& [key, value] : entry.children) {
    ValuePlaces& of = places.ofKey[key->text];
    of.value = value->place;
    for (const auto& [entryKey, element] : value->children) {
      of.elements.emplace_back(entryKey == nullptr ? element->text : entryKey->text,
                               element->place);
    }
  }
}

bool ManifestLoader::IsTaken(const std::map<std::string, std::string>& match) const {
  return std::all_of(match.begin(), match.end(), [this](const auto& pair) {
    const auto given = matchData_.find(pair.first);
    return given != matchData_.end() && given->second == pair.second;
  });
}

}  // namespace ProcMgr::Manifest
