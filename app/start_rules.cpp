#include "app/start_rules.h"

#include <algorithm>
#include <array>

namespace ProcMgr::App {
namespace {

constexpr mode_t kAnyExecute = S_IXUSR | S_IXGRP | S_IXOTH;

}  // namespace

std::optional<std::string_view> FindShellToken(std::string_view text) {
  static constexpr std::array<std::string_view, 12> kTokens = {"|",  ";",  ">", "<", ">>", "`",
                                                               "||", "&&", "&", "(", ")",  "$"};
  const auto* const found = std::find_if(
      kTokens.begin(), kTokens.end(),
      [text](std::string_view token) { return text.find(token) != std::string_view::npos; });
  return found == kTokens.end() ? std::nullopt : std::optional(*found);
}

ExecuteVerdict JudgeExecute(uid_t uid, const struct stat& file, const GroupTest& isInGroup) {
  if (uid == 0) {
    return (file.st_mode & kAnyExecute) == 0 ? ExecuteVerdict::kNobodyMay : ExecuteVerdict::kOk;
  }
  if (uid == file.st_uid) {
    return (file.st_mode & S_IXUSR) == 0 ? ExecuteVerdict::kOwnerMayNot : ExecuteVerdict::kOk;
  }
  if (!isInGroup(uid, file.st_gid)) {
    return ExecuteVerdict::kNotInGroup;
  }
  return (file.st_mode & S_IXGRP) == 0 ? ExecuteVerdict::kGroupMayNot : ExecuteVerdict::kOk;
}

}  // namespace ProcMgr::App
