#include "core/self_reported.h"

#include <unistd.h>

#include <algorithm>

#include "base/names.h"
#include "core/log.h"
#include "core/process_facts.h"
#include "core/status_feed.h"
#include "host/core_affinity_mgr.h"
#include "host/sharepool_cfg.h"
#include "message/nexio.h"
#include "message/upload_service.h"

namespace ProcMgr {
namespace {

constexpr const char* kAlloc = "alloc";
constexpr const char* kReadWrite = "rw";

bool IsAlive(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid);
  return access(path.c_str(), F_OK) == 0;
}

void Refuse(const PmUpload::LoadAppInfo& info, const NexioPeer& asker, int fd, const char* reason) {
  LogError("PROCMGR : pmupload name=%s, pid=%d from uid=%u, pid=%d %s, fd=%d",
           info.pidAppName.c_str(), info.pid, asker.uid, asker.pid, reason, fd);
}

// Whoever connects may name any process; only root, and the user to whom that process belongs, is
// believed. Yields false, with a line that names the asker, for anybody else. What else is said of
// the process counts as far as the kernel says it, too: `info` is put right.
bool Confirm(PmUpload::LoadAppInfo& info, int fd) {
  NexioPeer asker;
  if (NexioGetPeer(fd, asker) != 0) {
    return false;  // The connection has gone, and nobody waits for an answer.
  }
  ProcessIds ids;
  if (info.pid <= 0 || !ReadProcessIds(info.pid, ids)) {
    Refuse(info, asker, fd, "names a process that isn't there");
    return false;
  }
  const bool isOwn = std::all_of(ids.uids.begin(), ids.uids.end(),
                                 [&asker](uid_t uid) { return uid == asker.uid; });
  if (asker.uid != 0 && !isOwn) {
    Refuse(info, asker, fd, "is not believed");
    return false;
  }
  if (std::find(ids.gids.begin(), ids.gids.end(), info.gid) == ids.gids.end()) {
    LogWarning("PROCMGR : pmupload pid=%d doesn't run under gid=%u but under %u", info.pid,
               info.gid, ids.gids[1]);
    info.gid = ids.gids[1];
  }
  // Root names the program that its process is about to become.
  if (asker.uid != 0 && info.binPath != ProgramOf(info.pid)) {
    LogWarning("PROCMGR : pmupload pid=%d doesn't run %s", info.pid, info.binPath.c_str());
    info.binPath.clear();
  }
  return true;
}

bool Holds(const std::vector<std::string>& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

void Append(std::vector<SharepoolGroupsInfo>& groups, const std::vector<std::string>& names,
            const char* permission) {
  for (const std::string& name : names) {
    groups.push_back({name, permission});
  }
}

// Every configured group, with "alloc" for those that `isAlloc` picks and "rw" for the others.
template <typename Predicate>
std::vector<SharepoolGroupsInfo> AllGroups(Predicate isAlloc) {
  std::vector<SharepoolGroupsInfo> groups;
  for (const std::string& name : SharepoolCfg::Instance().GroupNames()) {
    groups.push_back({name, isAlloc(name) ? kAlloc : kReadWrite});
  }
  return groups;
}

std::vector<SharepoolGroupsInfo> WantedGroups(const PmUpload::LoadAppInfo& info) {
  if (Holds(SharepoolCfg::Instance().WhiteLists(), info.binPath)) {
    return AllGroups([](const std::string& name) { return name == kDefaultSharepoolGroup; });
  }
  if (info.rwGroups.empty() && info.allocGroups.empty()) {
    return {{kDefaultSharepoolGroup, kAlloc}};
  }
  if (!info.rwGroups.empty() && info.rwGroups.front() == "all") {
    return AllGroups([&info](const std::string& name) { return Holds(info.allocGroups, name); });
  }
  std::vector<SharepoolGroupsInfo> groups;
  Append(groups, info.rwGroups, kReadWrite);
  Append(groups, info.allocGroups, kAlloc);
  return groups;
}

bool IsAppNameUsed(const std::string& name) EXCLUDES(generalAppMutex_, baseAppMutex_) {
  {
    const MutexLock lock(generalAppMutex_);
    if (FindGeneralApp(name) != nullptr) {
      return true;
    }
  }
  const MutexLock lock(baseAppMutex_);
  return FindBaseApp(name) != nullptr;
}

bool AddPmUploadApp(const PmUpload::LoadAppInfo& info, int fd) EXCLUDES(pmUploadMutex_) {
  const MutexLock lock(pmUploadMutex_);
  const auto known =
      std::find_if(pmUploadApps_.begin(), pmUploadApps_.end(),
                   [&info](const auto& entry) { return entry.second.appName == info.pidAppName; });
  if (known != pmUploadApps_.end() && IsAlive(known->first)) {
    LogError("the --procName=%s that you input is duplicate with existing pmupload apps",
             info.pidAppName.c_str());
    return false;
  }
  if (IsAppNameUsed(info.pidAppName)) {
    LogError("the --procName=%s that you input is duplicate with already started apps by pm",
             info.pidAppName.c_str());
    return false;
  }
  const auto [entry, isNew] =
      pmUploadApps_.emplace(info.pid, PmUploadEntry{info.pidAppName, fd, info.gid});
  if (isNew) {
    entry->second.statusId = MentionSelfReported(info.pidAppName, info.binPath, info.gid, info.pid);
  }
  return true;
}

void AddPmUploadAppGroups(const PmUpload::LoadAppInfo& info) {
  SharepoolCfg::Instance().AddSharepoolGroup(info.pidAppName, info.pid, WantedGroups(info));
}

bool OnPmUploadApp(Reporter& reporter, PmUpload::LoadAppInfo info, int fd) {
  if (info.alreadyReported) {
    return true;  // The peer only fetches further group names.
  }
  if (!Confirm(info, fd) || !AddPmUploadApp(info, fd)) {
    return false;
  }
  const bool isReported = reporter.ReportAppState(
      {{info.pidAppName, info.pid, info.gid,
        static_cast<std::uint32_t>(ReportAppStateType::RUNNING_NORMAL_START), 0}},
      kAccessService);
  AddPmUploadAppGroups(info);
  return isReported;
}

}  // namespace

bool StartUploadService(Reporter& reporter) {
  return PmUpload::RegXCallBack(
      {[&reporter](const PmUpload::LoadAppInfo& info, int fd) {
         return OnPmUploadApp(reporter, info, fd);
       },
       [] { return SharepoolCfg::Instance().GroupNames(); },
       [](const std::string& path) { return Holds(SharepoolCfg::Instance().WhiteLists(), path); }});
}

void CheckPmUploadApps(Reporter& reporter) {
  std::vector<Message::AppStateInfo> gone;
  {
    const MutexLock lock(pmUploadMutex_);
    for (auto entry = pmUploadApps_.begin(); entry != pmUploadApps_.end();) {
      const auto& [pid, app] = *entry;
      // Before the look at the process: its end mustn't be taken for that of its namesake.
      if (IsAppNameUsed(app.appName)) {
        LogWarning(
            "pmupload pid=%d, name=%s isn't watched any more, an app of that name was started", pid,
            app.appName.c_str());
        Status::Memory::Instance().NoteGone(app.statusId);
        entry = pmUploadApps_.erase(entry);
        continue;
      }
      if (IsAlive(pid)) {
        ++entry;
        continue;
      }
      LogInfo("pmupload pid=%d, name=%s is not existent", pid, app.appName.c_str());
      gone.push_back({app.appName, pid, app.gid,
                      static_cast<std::uint32_t>(ReportAppStateType::TERMINATED_NORMAL_EXIT), 0});
      CoreAffinityMgr::Instance().RecycleThreadCoreInfo(pid, app.appName);
      Status::Memory::Instance().NoteGone(app.statusId);
      entry = pmUploadApps_.erase(entry);
    }
  }
  (void)reporter.ReportAppState(gone, kAccessService);  // The entries are gone either way.
}

}  // namespace ProcMgr
