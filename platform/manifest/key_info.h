// What a service file may say about an application, for tools that tell others: editors, schemas.
#ifndef PLATFORM_MANIFEST_KEY_INFO_H
#define PLATFORM_MANIFEST_KEY_INFO_H

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace ProcMgr::Manifest {

enum class KeyKind {
  kName,              // The name of an application, or a pattern.
  kPath,              // An absolute path, or a pattern.
  kId,                // A number within the bounds, or a name of the user database.
  kText,              // A text that doesn't look like something else.
  kFlag,              // true or false.
  kInteger,           // A whole number within the bounds.
  kIntegerOrPattern,  // The same, or a pattern.
  kRestart,           // One of kRestartWords.
  kScalars,           // A list of scalars, each taken as its text.
  kNames,             // A list of texts that aren't empty.
  kCores,             // A list of core numbers and ranges, or one text.
  kVariables,         // A mapping of scalars whose keys are names of environment variables.
  kPairs,             // A mapping of scalars.
  kGroups,            // A list of mappings with kGroupKeys, of which the first is required.
};

// A key of an application. The loader reads it by the same table.
struct KeyInfo {
  std::string_view name;
  KeyKind kind = KeyKind::kText;
  std::string_view description;
  // Of numbers.
  std::int64_t low = 0;
  std::int64_t high = 0;
  // The value of a number or a flag that is left out; null where that is nothing or isn't fixed.
  std::int64_t (*fallback)() = nullptr;
};

inline constexpr std::array<std::string_view, 4> kRequiredKeys = {"appName", "binPath", "uid",
                                                                  "gid"};
inline constexpr std::array<std::string_view, 4> kRestartWords = {"on-failure", "on-forever",
                                                                  "on-until-succeed", "no"};
inline constexpr std::array<std::string_view, 2> kGroupKeys = {"groupName", "permission"};
inline constexpr std::size_t kMaxNameBytes = 255;
inline constexpr std::uint32_t kMaxCore = 1023;

// In the order of the documentation.
[[nodiscard]] std::span<const KeyInfo> ApplicationKeys();

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_KEY_INFO_H
