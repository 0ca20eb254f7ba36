#include "tools/check/platform_users.h"

#include <optional>
#include <string_view>
#include <vector>

#include "app/user_groups.h"
#include "base/root_path.h"
#include "base/small_file.h"
#include "base/text.h"
#include "base/user_lookup.h"

namespace ProcMgr::Check {
namespace {

constexpr std::size_t kMaxLine = std::size_t{1} << 16;

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t end = 0; end != std::string_view::npos;) {
    end = text.find(separator);
    parts.push_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return parts;
}

// Gives the fields of each line that has at least `least`; a file that isn't there has none.
template <typename Take>
void ReadFields(const std::string& path, std::size_t least, const Take& take) {
  (void)ReadLines(path, kMaxLine, [&](std::string_view line, std::size_t) {
    const std::vector<std::string_view> fields = Split(line, ':');
    if (fields.size() >= least && !line.starts_with('#')) {
      take(fields);
    }
    return true;
  });
}

template <typename Id>
std::optional<Id> Find(const std::map<std::string, Id>& ids, const std::string& name) {
  const auto found = ids.find(name);
  return found == ids.end() ? std::nullopt : std::optional<Id>(found->second);
}

}  // namespace

PlatformUsers::PlatformUsers(const std::string& root) : isThisMachine_(root.empty()) {
  if (isThisMachine_) {
    return;
  }
  ReadPasswd(ResolveInRoot(root, "/etc/passwd").value_or(""));
  ReadGroup(ResolveInRoot(root, "/etc/group").value_or(""));
  SetIdFinders([names = uidOfName_](const std::string& name) { return Find(names, name); },
               [names = gidOfName_](const std::string& name) { return Find(names, name); });
}

void PlatformUsers::ReadPasswd(const std::string& path) {
  ReadFields(path, 4, [this](const std::vector<std::string_view>& fields) {
    const auto uid = ParseNumber<uid_t>(fields[2]);
    const auto gid = ParseNumber<gid_t>(fields[3]);
    // Of two lines the first counts.
    if (uid && gid && uidOfName_.emplace(fields[0], *uid).second) {
      groupsOfUser_[*uid].insert(*gid);
    }
  });
}

void PlatformUsers::ReadGroup(const std::string& path) {
  ReadFields(path, 4, [this](const std::vector<std::string_view>& fields) {
    const auto gid = ParseNumber<gid_t>(fields[2]);
    if (!gid) {
      return;
    }
    gidOfName_.emplace(fields[0], *gid);
    for (const std::string_view member : Split(fields[3], ',')) {
      if (const auto uid = Find(uidOfName_, std::string(member))) {
        groupsOfUser_[*uid].insert(*gid);
      }
    }
  });
}

UserVerdict PlatformUsers::Judge(uid_t uid) const {
  if (!isThisMachine_) {
    const auto user = groupsOfUser_.find(uid);
    if (user == groupsOfUser_.end()) {
      return UserVerdict::kUnknown;
    }
    return user->second.size() > App::kMaxUserGroups ? UserVerdict::kTooManyGroups
                                                     : UserVerdict::kOk;
  }
  App::UserGroups groups;
  switch (App::FindUserGroups(uid, groups)) {
    case App::UserGroupsResult::kUnknownUser:
      return UserVerdict::kUnknown;
    case App::UserGroupsResult::kTooManyGroups:
      return UserVerdict::kTooManyGroups;
    case App::UserGroupsResult::kWipeFailed:
    case App::UserGroupsResult::kOk:
      break;
  }
  return UserVerdict::kOk;
}

bool PlatformUsers::IsInGroup(uid_t uid, gid_t gid) const {
  if (isThisMachine_) {
    return App::IsUserInGroup(uid, gid);
  }
  const auto user = groupsOfUser_.find(uid);
  return Judge(uid) == UserVerdict::kOk && user->second.contains(gid);
}

}  // namespace ProcMgr::Check
