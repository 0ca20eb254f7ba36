#include "message/proc_mgr_master.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/app_state.h"
#include "base/boot_trace.h"
#include "base/mutex.h"
#include "base/sleep.h"
#include "core/log.h"
#include "message/name_table.h"
#include "message/nexio_wrappers.h"

namespace ProcMgr {
namespace {

constexpr std::uint32_t kOpenTimeoutMs = 180000;
constexpr std::uint32_t kOpenTimeoutLongMs = 1800000;
constexpr int kCloseTries = 20;
constexpr std::int64_t kCloseIntervalNs = 100'000'000;
// Far above what lies between the library's return and the filing, even on a machine that thrashes.
constexpr std::chrono::seconds kFilingLimit{5};

// The master that callbacks go to, and how many are with it.
class Attachment {
 public:
  void Attach(ProcMgrMaster* master) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    master_ = master;
  }

  void Detach(const ProcMgrMaster* master) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (master_ != master) {
      return;
    }
    master_ = nullptr;
    while (inside_ != 0) {
      left_.Wait(mutex_);
    }
  }

  // Yields null if no master is there; otherwise Leave() must follow.
  ProcMgrMaster* Enter() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (master_ != nullptr) {
      ++inside_;
    }
    return master_;
  }

  void Leave() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (--inside_ == 0) {
      left_.NotifyAll();
    }
  }

 private:
  Mutex mutex_;
  CondVar left_;
  ProcMgrMaster* master_ GUARDED_BY(mutex_) = nullptr;
  int inside_ GUARDED_BY(mutex_) = 0;
};

NameTable nameTable;
Openings openings;
Attachment attachment;

std::uint32_t OpenTimeoutMs() {
  const char* const mode = secure_getenv("VENTRIX_RUN_MODE");
  return mode != nullptr && std::strcmp(mode, "1") == 0 ? kOpenTimeoutLongMs : kOpenTimeoutMs;
}

// Yields the library's result; errno is that of the last try.
int Open(const NexioOpenParam& param) {
  errno = 0;
  int fd = NexioOpen(param);
  if (fd == kNexioBusy) {
    LogError("PROCMGR : NexioOpen failed, try again");
    errno = 0;
    fd = NexioOpen(param);
  }
  return fd;
}

// Closes a marked descriptor. Yields the library's result, or 0 if a callback of the channel has
// taken the closing over.
int CloseMarked(int fd) {
  for (int tries = 1;; ++tries) {
    const int ret = NexioClosePipe(fd);
    if (ret != kNexioCallback) {
      const bool tookOver = fd > 0 && !nameTable.ClaimClosing(fd);
      return tookOver ? 0 : ret;
    }
    // The mark stays after the last try: the running callback closes on its way out.
    if (tries == kCloseTries) {
      return ret;
    }
    SleepNs(kCloseIntervalNs);
    if (fd > 0 && !nameTable.IsClosing(fd)) {
      return 0;
    }
  }
}

// Called on the callback's own thread, where the library lets it close its own channel.
void CloseIfMarked(int fd) {
  if (nameTable.IsClosing(fd) && nameTable.ClaimClosing(fd)) {
    // -9 if a try of UnRegServiceCallBack came first; closed either way.
    (void)NexioClosePipe(fd);
  }
}

// Gives the channels whose tries have run out another one. Nearly always their callbacks have
// closed them; one that was just past CloseIfMarked when the mark came would be forgotten without
// this.
void CloseLeftOver() {
  for (const int fd : nameTable.Closing()) {
    if (NexioClosePipe(fd) != kNexioCallback) {
      (void)nameTable.ClaimClosing(fd);
    }
  }
}

// Opens a channel and files its descriptor. Yields the library's result, and in `error` the errno
// that it left.
int OpenAndFile(const std::string& procName, gid_t gid, Openings::Scope& opening, int& error) {
  NexioOpenParam param;
  param.peerName = procName.c_str();
  param.requestCallback = &ProcMgrMaster::ProcMgrMasterRequstMsgHandler;
  param.timeout = OpenTimeoutMs();
  param.gid = gid;
  param.cancelFd = opening.CancelFd();
  for (;;) {
    const int fd = Open(param);
    error = errno;
    const auto file = [fd, &procName] {
      if (fd > 0) {
        nameTable.Set(procName, fd);
      }
    };
    if (opening.TryFile(file)) {
      return fd;
    }
    if (fd > 0) {
      // Connected to a process that has ended in the meantime.
      nameTable.MarkForClosing(fd);
      (void)CloseMarked(fd);
    }
  }
}

// Yields what the opening of the name that is under way yields.
bool JoinOther(const std::string& procName) {
  openings.WaitForEnd(procName);
  return nameTable.FdOf(procName) > 0;
}

}  // namespace

ProcMgrMaster::ProcMgrMaster(Handler handler) : handler_(std::move(handler)) {
  attachment.Attach(this);
}

ProcMgrMaster::~ProcMgrMaster() {
  Detach();
}

void ProcMgrMaster::Detach() const {
  attachment.Detach(this);
}

bool ProcMgrMaster::RegServiceCallBack(const std::string& procName, gid_t gid,
                                       const OpenTerms& terms) {
  if (secure_getenv("PROC_NAME") == nullptr) {
    LogError("********* PROCMGR : RegServiceCallBack begin :pmProcName is null, targetProcName=%s",
             procName.c_str());
  }
  if (procName.empty()) {
    LogError("PROCMGR : RegServiceCallBack failed: procName is null");
    return false;
  }
  CloseLeftOver();
  int fd = kNexioBroken;
  int error = 0;
  {
    Openings::Scope opening(openings, procName, terms.patience);
    if (!opening.IsFirst()) {
      return !terms.waitsForOther || JoinOther(procName);
    }
    // A service that doesn't report, but serves, keeps its channel until it is opened anew.
    if (const int old = nameTable.TakeForClosing(procName); old > 0) {
      (void)CloseMarked(old);
    }
    if (!terms.isPeerGone || !terms.isPeerGone()) {
      fd = OpenAndFile(procName, gid, opening, error);
    }
  }
  if (fd < 1) {
    LogError("PROCMGR : RegServiceCallBack failed!! ret=%d, errno=%d", fd, error);
    return false;
  }
  LogInfo("********* PROCMGR : RegServiceCallBack success fd=%d, targetProcName=%s", fd,
          procName.c_str());
  return true;
}

void ProcMgrMaster::GiveUpOpening(const std::string& procName) {
  openings.GiveUp(procName);
}

bool ProcMgrMaster::UnRegServiceCallBack(const std::string& procName) {
  CloseLeftOver();
  int fd = -1;
  openings.Restarted(procName, [&fd, &procName] { fd = nameTable.TakeForClosing(procName); });
  const int ret = CloseMarked(fd);
  if (ret < 0) {
    LogError("PROCMGR : Master UnRegServiceCallBack failed: NexioClosePipe failed err code: %d",
             ret);
    return false;
  }
  LogInfo("PROCMGR : Master UnRegServiceCallBack success proName: %s fd: %d", procName.c_str(), fd);
  return true;
}

void ProcMgrMaster::ProcMgrMasterRequstMsgHandler(int fd, const NexioRequest* req) {
  if (fd < 1) {
    LogError("PROCMGR : ProcMgrMasterRequstMsgHandler failed: invalid fd");
    return;
  }
  if (req == nullptr) {
    LogError("PROCMGR : Master ProcMgrMasterRequstMsgHandler revice req is null : fd: %d", fd);
  } else if (ProcMgrMaster* const master = attachment.Enter(); master != nullptr) {
    master->handler_(fd, req);
    attachment.Leave();
  }
  CloseIfMarked(fd);
}

bool ProcMgrMaster::GetProcNameFromFd(int fd, std::string& name) {
  const auto isFiled = [fd, &name] { return nameTable.NameOf(fd, name); };
  // A frame can still come from a channel that is being closed; its name won't come back.
  const bool found =
      isFiled() || (!nameTable.IsClosing(fd) && openings.WaitUntilFiled(kFilingLimit, isFiled));
  if (!found) {
    LogError("PROCMGR : GetProcNameFromFd failed: fd: %d", fd);
  }
  return found;
}

int ProcMgrMaster::GetFdFromProcName(const std::string& procName) {
  return nameTable.FdOf(procName);
}

bool ProcMgrMaster::SendRequestMsg(int fd, const Serialization::PieceList& pieces) {
  if (pieces.empty()) {
    LogError("PROCMGR : Master SendRequestMsg failed: RequestPieceMsg is empty");
    return false;
  }
  for (const Message::RequestMsg& frame : pieces) {
    NexioRequest request;
    request.data = &frame;
    request.size = sizeof(frame);
    const int ret = ProcMgrNexioSendRequest(fd, request);
    if (ret < 0) {
      LogError("PROCMGR : Master SendRequestMsg failed, err code=%d, fd=%d", ret, fd);
      return false;
    }
  }
  return true;
}

bool ProcMgrMaster::ReportAppState(const std::vector<Message::AppStateInfo>& list,
                                   const std::string& owner) {
  if (list.empty()) {
    return true;
  }
  std::vector<Serialization::PackedItem> packed;
  if (!Serialization::ProcMgrPackAppStateRequest(list, packed)) {
    LogError("PROCMGR : Master ReportAppState failed: PackAppStateRequest failed, owner=%s",
             owner.c_str());
    return false;
  }
  Serialization::PieceList pieces;
  if (!Serialization::ProcMgrCombinePiecesMsg(Message::RequestType::APP_STATE_REPORT, packed,
                                              pieces)) {
    LogError("PROCMGR : Master ReportAppState failed: CombinePiecesMsg failed, owner=%s",
             owner.c_str());
    return false;
  }
  const int fd = GetFdFromProcName(owner);
  if (fd < 1) {
    LogError("PROCMGR : Master ReportAppState failed: invalid fd, owner=%s", owner.c_str());
    return false;
  }
  if (!SendRequestMsg(fd, pieces)) {
    LogError("PROCMGR : Master ReportAppState failed: SendRequestMsg %s failed, fd:%d",
             owner.c_str(), fd);
    return false;
  }
  for (const Message::AppStateInfo& info : list) {
    LogInfo("%s PM report appState to %s, appState=%s, appName=%s, pid=%d",
            BootStrace(kBootTraceTag).c_str(), owner.c_str(),
            GetReportAppStateTypeStr(info.state).c_str(), info.appName.c_str(), info.pid);
  }
  return true;
}

bool ProcMgrMaster::ReportAppDetailStatus(const std::map<std::string, int>& status,
                                          const std::string& owner) {
  if (status.empty()) {
    return true;
  }
  Serialization::PieceList pieces(1);
  if (!Serialization::ProcMgrPackAppDetailStatus(status, pieces.front())) {
    LogError("PROCMGR : ReportAppDetailStatus SerializeMessage failed");
    return false;
  }
  const int fd = GetFdFromProcName(owner);
  if (fd < 1) {
    LogError("PROCMGR : Master ReportAppDetailStatus: invalid fd, owner=%s", owner.c_str());
    return false;
  }
  if (!SendRequestMsg(fd, pieces)) {
    LogError("PROCMGR : Master ReportAppDetailStatus: SendRequestMsg %s failed, fd:%d",
             owner.c_str(), fd);
    return false;
  }
  for (const auto& [name, value] : status) {
    LogInfo("%s PM ReportAppDetailStatus to %s, appName=%s, status=%d",
            BootStrace(kBootTraceTag).c_str(), owner.c_str(), name.c_str(), value);
  }
  return true;
}

}  // namespace ProcMgr
