// The checks that can still refuse a start, before anything is forked.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "app/app_info.h"
#include "app/start_rules.h"
#include "app/user_groups.h"
#include "base/standard_path.h"
#include "core/host_context.h"
#include "core/log.h"
#include "host/core_affinity_mgr.h"
#include "host/integrity_protect.h"
#include "status/memory.h"

namespace ProcMgr::App {
namespace {

using Status::CauseKind;

bool HasExecutePermission(const std::string& appName, const std::string& binPath, uid_t uid,
                          UserGroupsOnce& groups, const struct stat& file) {
  const auto isInGroup = [&groups](uid_t, gid_t gid) { return groups.Get().Holds(gid); };
  switch (JudgeExecute(uid, file, isInGroup)) {
    case ExecuteVerdict::kOk:
      return true;
    case ExecuteVerdict::kNobodyMay:
      LogError(
          "PROCMGR : Start App=%s failed, cfg uid is root, but binPath=%s uid=%u not have x "
          "permission !!",
          appName.c_str(), binPath.c_str(), file.st_uid);
      return false;
    case ExecuteVerdict::kOwnerMayNot:
      LogError(
          "PROCMGR : Start App=%s failed, cfg uid=%u, but binPath=%s uid=%u not have x permission "
          "!!",
          appName.c_str(), uid, binPath.c_str(), file.st_uid);
      return false;
    case ExecuteVerdict::kNotInGroup:
      LogError(
          "PROCMGR : Start App=%s failed, cfg uid=%u, but binPath=%s uid=%u, gid=%u not have x "
          "permission !!",
          appName.c_str(), uid, binPath.c_str(), file.st_uid, file.st_gid);
      return false;
    case ExecuteVerdict::kGroupMayNot:
      break;
  }
  LogError(
      "PROCMGR : Start App=%s failed, cfg uid=%u, but binPath=%s gid=%u not have x permission !!",
      appName.c_str(), uid, binPath.c_str(), file.st_gid);
  return false;
}

// Yields what is wrong; none if nothing is.
std::optional<CauseKind> CheckChildProParas(const std::string& appName, const std::string& execPath,
                                            uid_t uid, UserGroupsOnce& groups,
                                            const std::vector<std::string>& arguments) {
  if (std::any_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
        return FindShellToken(argument).has_value();
      })) {
    LogError("PROCMGR : CheckChildProParas App=%s arguments include illegal str", appName.c_str());
    return CauseKind::kArgument;
  }
  std::string resolved;
  if (!StandardizationPath(execPath, resolved)) {
    // What can be resolved is there, so only what can't has to be asked for.
    if (access(execPath.c_str(), F_OK) != 0) {
      LogError("PROCMGR : Start App=%s failed, binPath=%s is not existed !!!", appName.c_str(),
               execPath.c_str());
    }
    return CauseKind::kMissing;
  }
  struct stat file {};
  if (stat(resolved.c_str(), &file) != 0) {
    const int error = errno;
    LogError("PROCMGR : Start App=%s failed, stat binPath=%s failed, error=%d", appName.c_str(),
             resolved.c_str(), error);
    return CauseKind::kMissing;
  }
  if (!HasExecutePermission(appName, resolved, uid, groups, file)) {
    return CauseKind::kPermission;
  }
  return std::nullopt;
}

std::string Describe(CauseKind fault, const std::string& path, uid_t uid) {
  switch (fault) {
    case CauseKind::kArgument:
      return "an argument holds a character that means something to a shell";
    case CauseKind::kMissing:
      return "there is no program " + path;
    case CauseKind::kPermission:
      return "user " + std::to_string(uid) + " may not execute " + path;
    case CauseKind::kDigest:
      return "the digest of " + path + " is not the one that is listed";
    case CauseKind::kCore:
      return "a core that it asks for is no control core";
    default:
      return {};
  }
}

}  // namespace

bool AppInfo::PrepareStart(UserGroupsOnce& groups) const {
  Status::Memory& memory = Status::Memory::Instance();
  memory.BeginChecks(statusId_);
  if (const std::optional<CauseKind> fault = FindFault(groups)) {
    memory.Refuse(statusId_, *fault, Describe(*fault, execPath_, uid_));
    return false;
  }
  memory.PassChecks(statusId_);
  return true;
}

std::optional<CauseKind> AppInfo::FindFault(UserGroupsOnce& groups) const {
  if (const auto fault = CheckChildProParas(appName_, execPath_, uid_, groups, arguments_)) {
    return fault;
  }
  if (!IntegrityProtect::Instance().Check(execPath_)) {
    LogError("PROCMGR : IntegrityProtect app=%s or sha256sum has been modified", execPath_.c_str());
    return CauseKind::kDigest;
  }
  // The core lists are read at the end of a quick start; a priority application is checked then.
  if (startupPriority_ != -1 && HostContext::Instance().isQuickStart_.load()) {
    return std::nullopt;
  }
  if (!CoreAffinityMgr::Instance().CheckIsCtrlCpu(appName_, coreAffinity_)) {
    return CauseKind::kCore;
  }
  return std::nullopt;
}

}  // namespace ProcMgr::App
