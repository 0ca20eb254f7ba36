#include "platform/manifest/manifest_keys.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include "base/printable.h"
#include "base/root_path.h"
#include "base/user_lookup.h"
#include "platform/manifest/key_info.h"
#include "platform/manifest/pattern.h"

namespace ProcMgr::Manifest {
namespace {

using Fields = ApplicationManifest::Fields;

constexpr std::int64_t kUint32Max = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kInt32Max = std::numeric_limits<std::int32_t>::max();

// A key's reader: reads the value of the key `name` into its field. False after telling the fault.
using KeyReader = bool (*)(ValueReader& reader, const YamlNode& node, std::string_view name,
                           ReadApplication& out);

template <auto kField>
bool TextKey(ValueReader& reader, const YamlNode& node, std::string_view name,
             ReadApplication& out) {
  return reader.Text(node, name, out.fields.*kField);
}

template <auto kField>
bool FlagKey(ValueReader& reader, const YamlNode& node, std::string_view name,
             ReadApplication& out) {
  return reader.Boolean(node, name, out.fields.*kField);
}

template <auto kField, std::int64_t kLow, std::int64_t kHigh>
bool IntegerKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                ReadApplication& out) {
  std::int64_t value = 0;
  if (!reader.Integer(node, name, kLow, kHigh, value)) {
    return false;
  }
  auto& field = out.fields.*kField;
  field = static_cast<std::remove_reference_t<decltype(field)>>(value);
  return true;
}

// A number, or a name that `kFind` knows.
template <auto kField, auto kFind>
bool IdKey(ValueReader& reader, const YamlNode& node, std::string_view name, ReadApplication& out) {
  if (node.IsCollection() || TypeOf(node) != ScalarType::kText) {
    return IntegerKey<kField, 0, kUint32Max>(reader, node, name, out);
  }
  std::string word;
  if (!reader.Text(node, name, word)) {
    return false;
  }
  const auto id = reader.Id(kFind, word);
  if (!id) {
    reader.Wrong(node, name, "a number, or a name that the user database of this machine knows");
    return false;
  }
  out.fields.*kField = *id;
  return true;
}

// Tells about a broken expression, and about an opening that was hardly meant literally.
bool CheckPattern(ValueReader& reader, const YamlNode& node, std::string_view name,
                  const std::string& text) {
  if (const auto broken = FindBrokenExpression(text)) {
    reader.Error(node.place, std::string(name) + ": " + *broken +
                                 "; it must be a regular expression in RE2 syntax, with a "
                                 "backslash before a brace that has no partner");
    return false;
  }
  const std::vector<PatternPiece> pieces = SplitPattern(text);
  if (std::any_of(pieces.begin(), pieces.end(), [](const PatternPiece& piece) {
        return !piece.isExpression && piece.text.find("${") != std::string_view::npos;
      })) {
    reader.Warning(node.place, std::string(name) +
                                   ": no \"}\" matches a \"${\", so it is literal text; close it "
                                   "if a pattern is meant");
  }
  return true;
}

bool AppNameKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                ReadApplication& out) {
  std::string text;
  if (!reader.Text(node, name, text)) {
    return false;
  }
  // An expression may well use both signs, to exclude them.
  const std::vector<PatternPiece> pieces = SplitPattern(text);
  const bool hasSeparator = std::any_of(pieces.begin(), pieces.end(), [](const auto& piece) {
    return !piece.isExpression && piece.text.find_first_of("#/") != std::string_view::npos;
  });
  if (text.empty() || text.size() > kMaxNameBytes || hasSeparator) {
    reader.Wrong(node, name, R"(a name of 1 to 255 bytes without "#" and "/")");
    return false;
  }
  if (!CheckPattern(reader, node, name, text)) {
    return false;
  }
  out.fields.appName = std::move(text);
  return true;
}

bool BinPathKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                ReadApplication& out) {
  std::string text;
  if (!reader.Text(node, name, text)) {
    return false;
  }
  if (!text.starts_with('/') && !HasExpression(text)) {
    reader.Wrong(node, name, "an absolute path or a pattern");
    return false;
  }
  if (!CheckPattern(reader, node, name, text)) {
    return false;
  }
  out.fields.binPath = std::move(text);
  return true;
}

bool ArgumentsKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                  ReadApplication& out) {
  if (!reader.ScalarTexts(node, name, out.fields.arguments)) {
    return false;
  }
  bool isGood = true;
  for (const YamlNode::Child& child : node.children) {
    isGood = CheckPattern(reader, *child.value, name, child.value->text) && isGood;
  }
  return isGood;
}

bool EnvArgvKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                ReadApplication& out) {
  if (!reader.TextMap(node, name, out.fields.envArgv)) {
    return false;
  }
  bool isGood = true;
  for (const auto& [key, value] : node.children) {
    if (key->text.empty() || key->text.find('=') != std::string::npos) {
      reader.Wrong(*key, "a key of envArgv", R"(a variable's name, not empty and without "=")");
      isGood = false;
    }
    isGood = CheckPattern(reader, *value, name, value->text) && isGood;
  }
  return isGood;
}

bool DependListKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                   ReadApplication& out) {
  return reader.Names(node, name, out.fields.dependList);
}

bool CoreAffinityKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                     ReadApplication& out) {
  return reader.Cores(node, name, out.fields.coreAffinity);
}

bool SharepoolGroupsKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                        ReadApplication& out) {
  return reader.Groups(node, name, out.fields.sharepoolGroups);
}

bool MatchKey(ValueReader& reader, const YamlNode& node, std::string_view name,
              ReadApplication& out) {
  out.isMatchKnown = reader.TextMap(node, name, out.match);
  return out.isMatchKnown;
}

bool RestartKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                ReadApplication& out) {
  if (node.IsCollection() ||
      std::find(kRestartWords.begin(), kRestartWords.end(), node.text) == kRestartWords.end()) {
    reader.Wrong(node, name, "on-failure, on-forever, on-until-succeed or no");
    return false;
  }
  out.fields.restart = node.text;
  return true;
}

bool VfIdKey(ValueReader& reader, const YamlNode& node, std::string_view name,
             ReadApplication& out) {
  if (node.IsCollection() || TypeOf(node) != ScalarType::kText) {
    return IntegerKey<&Fields::vfId, kInt32Min, kInt32Max>(reader, node, name, out);
  }
  std::string text;
  if (!reader.Text(node, name, text)) {
    return false;
  }
  if (!HasExpression(text)) {
    reader.Wrong(node, name, "a whole number or a pattern");
    return false;
  }
  if (!CheckPattern(reader, node, name, text)) {
    return false;
  }
  out.fields.vfIdPattern = std::move(text);
  return true;
}

bool StartupEntryPathKey(ValueReader& reader, const YamlNode& node, std::string_view name,
                         ReadApplication& out) {
  std::string text;
  if (!reader.Text(node, name, text)) {
    return false;
  }
  if (text.empty()) {
    out.fields.startupEntryPath.clear();
    return true;
  }
  const std::filesystem::path joined = reader.File().PathOf(text);
  const std::string& root = reader.File().root;
  // The entry file may come later than this one, so what doesn't exist yet is no fault.
  if (IsBelow(root, joined.string())) {
    out.fields.startupEntryPath = ResolveInRoot(root, joined.string().substr(root.size()))
                                      .value_or(joined.lexically_normal().string());
    return true;
  }
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(joined, error);
  out.fields.startupEntryPath = (error ? joined.lexically_normal() : resolved).string();
  return true;
}

struct KeyRule {
  KeyInfo info;
  KeyReader read = nullptr;
};

template <auto kField>
std::int64_t Fallback() {
  return static_cast<std::int64_t>(Fields{}.*kField);
}

template <auto kField>
constexpr KeyRule TextRule(std::string_view name, std::string_view description) {
  return {{name, KeyKind::kText, description}, &TextKey<kField>};
}

template <auto kField>
constexpr KeyRule FlagRule(std::string_view name, std::string_view description) {
  return {{name, KeyKind::kFlag, description, 0, 1, &Fallback<kField>}, &FlagKey<kField>};
}

template <auto kField, std::int64_t kLow, std::int64_t kHigh>
constexpr KeyRule IntegerRule(std::string_view name, std::string_view description) {
  return {{name, KeyKind::kInteger, description, kLow, kHigh, &Fallback<kField>},
          &IntegerKey<kField, kLow, kHigh>};
}

template <auto kField, auto kFind>
constexpr KeyRule IdRule(std::string_view name, std::string_view description) {
  return {{name, KeyKind::kId, description, 0, kUint32Max}, &IdKey<kField, kFind>};
}

constexpr std::array kRules = {
    KeyRule{{"appName", KeyKind::kName,
             "The application's name; may be a pattern in a start-up entry file."},
            &AppNameKey},
    KeyRule{{"binPath", KeyKind::kPath, "The program: an absolute path, or a pattern."},
            &BinPathKey},
    IdRule<&Fields::uid, &FindUserId>("uid", "The user: a number or a name."),
    IdRule<&Fields::gid, &FindGroupId>("gid", "The group: a number or a name."),
    KeyRule{{"arguments", KeyKind::kScalars, "argv[1] and on, each taken as its text."},
            &ArgumentsKey},
    KeyRule{{"envArgv", KeyKind::kVariables,
             "Environment variables. A service that reports needs PROC_NAME with its appName."},
            &EnvArgvKey},
    KeyRule{{"dependList", KeyKind::kNames, "The applications that must run first."},
            &DependListKey},
    KeyRule{{"coreAffinity", KeyKind::kCores,
             "Core numbers and ranges; left out: the control cores. 255 in the first place stands "
             "for the reserved cores, for an application started on request."},
            &CoreAffinityKey},
    TextRule<&Fields::resGroupName>("resGroupName", "The cpu and memory cgroup."),
    TextRule<&Fields::cpuset>("cpuset", "The cpuset cgroup."),
    KeyRule{{"restart", KeyKind::kRestart, "When the application is started again."}, &RestartKey},
    IntegerRule<&Fields::termTimeOut, 0, kUint32Max>(
        "termTimeOut", "Milliseconds between SIGTERM and the next step."),
    IntegerRule<&Fields::nice, -20, 19>("nice", "What is added to the niceness."),
    IntegerRule<&Fields::nodeType, kInt32Min, kInt32Max>(
        "nodeType", "0: a sensor shows the application's faults."),
    IntegerRule<&Fields::startupPriority, -1, kInt32Max>(
        "startupPriority", "Lower starts earlier, ahead of the base services; -1: no priority."),
    KeyRule{{"vfId", KeyKind::kIntegerOrPattern, "The device function, or a pattern; -1: none.",
             kInt32Min, kInt32Max, &Fallback<&Fields::vfId>},
            &VfIdKey},
    KeyRule{{"startupEntryPath", KeyKind::kText,
             "The start-up entry file, absolute or relative to this file."},
            &StartupEntryPathKey},
    TextRule<&Fields::securityCon>("securityCon", "Carried with the application."),
    TextRule<&Fields::soName>("soName", "Carried with the application."),
    TextRule<&Fields::soPath>("soPath", "Carried with the application."),
    TextRule<&Fields::processBindPath>("processBindPath", "Carried with the application."),
    KeyRule{{"sharepoolGroups", KeyKind::kGroups,
             "The share pool groups that the application gets; of a base service it isn't read."},
            &SharepoolGroupsKey},
    FlagRule<&Fields::isReporting>("isReporting", "The service reports its own state and beats."),
    FlagRule<&Fields::isForceTerm>("isForceTerm",
                                   "SIGKILL is allowed when termTimeOut has run out."),
    FlagRule<&Fields::isSetRtPrio>("isSetRtPrio", "The limit of real-time priorities is raised."),
    FlagRule<&Fields::isDelayCoreAffinity>(
        "isDelayCoreAffinity", "Core binding waits for the request of delayed binding."),
    FlagRule<&Fields::isSo>("isSo", "Carried with the application."),
    FlagRule<&Fields::heartBeatSwitch>("heartBeatSwitch", "The process is told to beat (GRP_HB)."),
    // Left out it depends on the other keys.
    KeyRule{{"isDynamicPara", KeyKind::kFlag,
             "Requests bring parts of the launch; left out: true if there is a pattern."},
            &FlagKey<&Fields::isDynamicPara>},
    KeyRule{{"match", KeyKind::kPairs,
             "The application is taken only if the load's match data has every pair."},
            &MatchKey},
};

constexpr std::array<KeyInfo, kRules.size()> KeyInfos() {
  std::array<KeyInfo, kRules.size()> infos;
  std::transform(kRules.begin(), kRules.end(), infos.begin(), [](auto& rule) { return rule.info; });
  return infos;
}
constexpr std::array<KeyInfo, kRules.size()> kKeyInfos = KeyInfos();

constexpr std::array<std::string_view, kRules.size()> KeyNames() {
  std::array<std::string_view, kRules.size()> names;
  std::transform(kKeyInfos.begin(), kKeyInfos.end(), names.begin(),
                 [](auto& info) { return info.name; });
  return names;
}
constexpr std::array<std::string_view, kRules.size()> kKeyNames = KeyNames();

bool CheckRequired(ValueReader& reader, const YamlNode& mapping) {
  bool isGood = true;
  for (const std::string_view name : kRequiredKeys) {
    if (mapping.Find(name) == nullptr) {
      reader.Error(mapping.place, "the application has no " + std::string(name) +
                                      "; appName, binPath, uid and gid are required");
      isGood = false;
    }
  }
  return isGood;
}

bool HasPatterns(const Fields& fields) {
  return HasExpression(fields.appName) || HasExpression(fields.binPath) ||
         HasExpression(fields.vfIdPattern) ||
         std::any_of(fields.arguments.begin(), fields.arguments.end(), &HasExpression) ||
         std::any_of(fields.envArgv.begin(), fields.envArgv.end(),
                     [](const auto& entry) { return HasExpression(entry.second); });
}

}  // namespace

std::span<const KeyInfo> ApplicationKeys() {
  return kKeyInfos;
}

bool IsApplicationKey(std::string_view key) {
  return std::find(kKeyNames.begin(), kKeyNames.end(), key) != kKeyNames.end();
}

bool ReadApplicationMapping(ValueReader& reader, const YamlNode& mapping, ReadApplication& out) {
  bool isGood = CheckRequired(reader, mapping);
  for (const auto& [key, value] : mapping.children) {
    const auto* const rule = std::find_if(
        kRules.begin(), kRules.end(),
        [&name = key->text](const KeyRule& candidate) { return candidate.info.name == name; });
    if (rule == kRules.end()) {
      reader.UnknownKey(*key, kKeyNames);
    } else {
      isGood = rule->read(reader, *value, rule->info.name, out) && isGood;
    }
  }
  if (mapping.Find("isDynamicPara") == nullptr) {
    out.fields.isDynamicPara = HasPatterns(out.fields);
  }
  out.fields.cfgPath = reader.File().resolvedPath;
  return isGood;
}

}  // namespace ProcMgr::Manifest
