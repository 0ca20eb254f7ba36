#include "core/self_reported.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/names.h"
#include "core/log.h"
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

// Whoever connects may name any process; only root, and the user to whom that process belongs, is
// believed. A process that isn't there belongs to nobody.
bool IsBelievable(const PmUpload::LoadAppInfo& info, int fd) {
  NexioPeer peer;
  struct stat process {};
  const std::string path = "/proc/" + std::to_string(info.pid);
  const bool isThere = info.pid > 0 && stat(path.c_str(), &process) == 0;
  if (isThere && NexioGetPeer(fd, peer) == 0 && (peer.uid == 0 || peer.uid == process.st_uid)) {
    return true;
  }
  LogError("PROCMGR : pmupload name=%s, pid=%d from uid=%u, pid=%d is not believed, fd=%d",
           info.pidAppName.c_str(), info.pid, peer.uid, peer.pid, fd);
  return false;
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

bool OnPmUploadApp(Reporter& reporter, const PmUpload::LoadAppInfo& info, int fd) {
  if (info.alreadyReported) {
    return true;  // The peer only fetches further group names.
  }
  if (!IsBelievable(info, fd) || !AddPmUploadApp(info, fd)) {
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
