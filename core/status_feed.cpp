#include "core/status_feed.h"

#include <utility>

namespace ProcMgr {

using Status::AppFacts;
using Status::AppKind;
using Status::Memory;

Status::AppId MentionBaseApp(const ApplicationManifest& manifest) {
  const std::set<std::string>& depends = manifest.GetDependList();
  AppFacts facts;
  facts.kind = AppKind::kBase;
  facts.isReporting = manifest.GetIsReporting();
  facts.uid = manifest.GetUid();
  facts.gid = manifest.GetGid();
  facts.name = manifest.GetAppName();
  facts.policy = Status::RestartPolicyOf(manifest.GetRestart());
  facts.path = manifest.GetBinPath();
  facts.arguments = manifest.GetArguments();
  facts.depends.assign(depends.begin(), depends.end());
  facts.cores = manifest.GetCoreAffinity();
  facts.startFile = Status::SharedText(manifest.GetStartupEntryPath());
  return Memory::Instance().Mention(std::move(facts));
}

void MentionBaseApps(const std::vector<ApplicationManifest>& manifests) {
  for (const ApplicationManifest& manifest : manifests) {
    (void)MentionBaseApp(manifest);  // Its record will ask for the number.
  }
}

void MentionGeneralApp(App::GeneralAppInfo& app) {
  AppFacts facts;
  facts.kind = AppKind::kGeneral;
  facts.uid = app.uid_;
  facts.gid = app.gid_;
  facts.name = app.appName_;
  facts.owner = Status::SharedText(app.ownerName_);
  facts.policy = Status::RestartPolicyOf(app.restart_);
  facts.path = app.execPath_;
  facts.arguments = app.arguments_;
  facts.cores = app.coreAffinity_;
  app.statusId_ = Memory::Instance().Mention(std::move(facts));
}

Status::AppId MentionSelfReported(const std::string& name, const std::string& path, gid_t gid,
                                  pid_t pid) {
  AppFacts facts;
  facts.kind = AppKind::kSelf;
  facts.gid = gid;
  // A peer's words are bounded here; what else it says has been believed by now.
  constexpr std::size_t kLongestName = 255;
  facts.name = name.substr(0, kLongestName);
  facts.path = path;
  Memory& memory = Memory::Instance();
  const Status::AppId id = memory.Mention(std::move(facts));
  memory.NoteStarted(id, pid);
  memory.NoteRunning(id);
  return id;
}

}  // namespace ProcMgr
