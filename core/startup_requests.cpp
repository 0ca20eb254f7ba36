// The requests of a base service to load, and to load again, what it may ask to be started.
#include <utility>

#include "base/boot_trace.h"
#include "core/app_lists.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "message/keeper.h"
#include "message/serialization.h"

namespace ProcMgr {
namespace {

using Message::RequestMsg;
using Message::StartupCfgInfo;

void SendLoadResult(std::uint32_t ret, const NexioRequest& request, int fd) {
  // A requester that has gone, or doesn't read, waits for no answer.
  (void)RespondInOrder(fd, request.seq, std::to_string(ret), [](int) {});
}

std::string GetStartupEntryPath(const std::string& name) EXCLUDES(baseAppMutex_) {
  const MutexLock lock(baseAppMutex_);
  const App::BaseAppInfo* const app = FindBaseApp(name);
  if (app == nullptr) {
    LogError("PROCMGR : GetStartupEntryPath not find procName=%s", name.c_str());
    return {};
  }
  return app->startupEntryPath_;
}

}  // namespace

std::uint32_t ProcessManager::ReLoadStartCfgInfo(const StartupCfgInfo& cfg) {
  const std::uint32_t ret = startupCfg_.LoadStartCfgInfo(cfg);
  if (ret != 0) {
    LogError("ReLoadStartCfgInfo failed, path=%s", cfg.path.c_str());
  }
  generalApps_.UpdateManifests();
  return ret;
}

// The file that is loaded is the one that the sender's own manifest names, whatever the frame says.
void ProcessManager::HandleLoadRequest(const RequestMsg& frame, const std::string& sender,
                                       const NexioRequest& request, int fd) {
  StartupCfgInfo cfg;
  if (!Serialization::ProcMgrUnpackMatchDataAndPathRequest(&frame, cfg)) {
    SendLoadResult(kLoadStartCfgFailed, request, fd);
    return;
  }
  LogInfo("%s PM revice LOAD_STARTUP_CFG msg load file=%s", BootStrace(kBootTraceTag).c_str(),
          cfg.path.c_str());
  cfg.path = GetStartupEntryPath(sender);
  const std::uint32_t ret = startupCfg_.LoadStartCfgInfo(cfg);
  LogInfo("%s LoadStartCfgInfo finish ret=0x%X, fd=%d", BootStrace(kBootTraceTag).c_str(), ret, fd);
  SendLoadResult(ret, request, fd);
}

void ProcessManager::HandleReloadRequest(const RequestMsg& frame, const std::string& sender,
                                         const NexioRequest& request, int fd) {
  StartupCfgInfo cfg;
  if (!Serialization::ProcMgrUnpackMatchDataAndPathRequest(&frame, cfg)) {
    SendLoadResult(kLoadStartCfgFailed, request, fd);
    return;
  }
  const std::string askedPath = std::exchange(cfg.path, GetStartupEntryPath(sender));
  LogInfo("%s PM revice RELOAD_STARTUP_CFG msg load file=%s", BootStrace(kBootTraceTag).c_str(),
          askedPath.c_str());
  const std::uint32_t ret = ReLoadStartCfgInfo(cfg);
  LogInfo("%s ReLoadStartCfgInfo finish ret=0x%X, fd=%d", BootStrace(kBootTraceTag).c_str(), ret,
          fd);
  SendLoadResult(ret, request, fd);
}

}  // namespace ProcMgr
