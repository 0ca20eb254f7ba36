#include "message/proc_mgr_master.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "base/app_state.h"
#include "base/boot_trace.h"
#include "base/immortal.h"
#include "base/may_wait.h"
#include "base/mutex.h"
#include "core/log.h"
#include "message/cut_channels.h"
#include "message/keeper.h"
#include "message/name_table.h"
#include "message/openings.h"

namespace ProcMgr {
namespace {

constexpr std::uint32_t kOpenTimeoutMs = 180000;
constexpr std::uint32_t kOpenTimeoutLongMs = 1800000;
constexpr int kCloseTries = 20;
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
    MayWait("Detach");
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

// Callbacks of the library, and closings that the keeper still tries, outlive the exit handlers.
NameTable& nameTable = Immortal<NameTable>();
Openings& openings = Immortal<Openings>();
CutChannels& cutChannels = Immortal<CutChannels>();
Attachment& attachment = Immortal<Attachment>();

std::uint32_t OpenTimeoutMs() {
  const char* const mode = secure_getenv("VENTRIX_RUN_MODE");
  return mode != nullptr && std::strcmp(mode, "1") == 0 ? kOpenTimeoutLongMs : kOpenTimeoutMs;
}

// Yields the library's result; errno is that of the last try.
int Open(const NexioOpenParam& param) {
  MayWait("NexioOpen");
  errno = 0;
  int fd = NexioOpen(param);
  if (fd == kNexioBusy) {
    LogError("PROCMGR : NexioOpen failed, try again");
    errno = 0;
    fd = NexioOpen(param);
  }
  return fd;
}

// One try to close a marked descriptor. Yields the library's result, or 0 if a callback of the
// channel has taken the closing over.
int TryCloseMarked(int fd) {
  if (fd > 0 && !nameTable.IsClosing(fd)) {
    return 0;
  }
  const int ret = NexioClosePipe(fd);
  if (ret == kNexioCallback) {
    return ret;  // The mark stays, after the last try too: that callback closes on its way out.
  }
  const bool tookOver = fd > 0 && !nameTable.ClaimClosing(fd);
  return tookOver ? 0 : ret;
}

void CloseMarked(int fd, std::function<void(int)> outcome) {
  CloseInTime({[fd] { return TryCloseMarked(fd); }, kCloseTries, std::move(outcome)});
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

// Whether the name of `fd` is in the table, if need be at the end of the opening that files it.
bool FindName(int fd, std::string& name) {
  const auto isFiled = [fd, &name] { return nameTable.NameOf(fd, name); };
  // A frame can still come from a channel that is being closed; its name won't come back.
  return isFiled() || (!nameTable.IsClosing(fd) && openings.WaitUntilFiled(kFilingLimit, isFiled));
}

void NoteCut(int fd) {
  if (std::string name; FindName(fd, name)) {
    cutChannels.Note(name, fd, SteadyNow());
  }
}

// An opening that has begun: what is left to be done waits for the peer.
struct BegunOpening {
  std::string procName;
  gid_t gid = 0;
  OpenTerms terms;
  std::shared_ptr<Openings::Scope> scope;
};

// The steps of an opening that wait for nobody. Yields null, with a line in the log, if it has
// failed already.
std::shared_ptr<Openings::Scope> BeginOpening(const std::string& procName) {
  if (secure_getenv("PROC_NAME") == nullptr) {
    LogError("********* PROCMGR : RegServiceCallBack begin :pmProcName is null, targetProcName=%s",
             procName.c_str());
  }
  if (procName.empty()) {
    LogError("PROCMGR : RegServiceCallBack failed: procName is null");
    return nullptr;
  }
  CloseLeftOver();
  int error = 0;
  std::shared_ptr<Openings::Scope> scope = openings.Begin(procName, error);
  if (scope == nullptr) {
    ProcMgrMaster::TellOpeningFailed(kNexioBroken, error);
    return nullptr;
  }
  // A service that doesn't report, but serves, keeps its channel until it is opened anew.
  if (const int old = nameTable.TakeForClosing(procName); old > 0) {
    CloseMarked(old, [](int) {});
  }
  return scope;
}

// Waits for the peer. Ends the opening.
bool FinishOpening(BegunOpening& opening) {
  NexioOpenParam param;
  param.peerName = opening.procName.c_str();
  param.requestCallback = &ProcMgrMaster::ProcMgrMasterRequstMsgHandler;
  const auto patience = static_cast<std::uint32_t>(opening.terms.patience.count());
  param.timeout = patience != 0 ? patience : OpenTimeoutMs();
  param.gid = opening.gid;
  param.cancelFd = opening.scope->CancelFd();
  NameTable::Place place = nameTable.Prepare(opening.procName);
  const int fd = Open(param);
  const int error = errno;
  const bool isQuiet = opening.terms.isEndExpected && opening.scope->IsEnding();
  if (fd > 0) {
    nameTable.Set(std::move(place), fd);
    LogInfo("********* PROCMGR : RegServiceCallBack success fd=%d, targetProcName=%s", fd,
            opening.procName.c_str());
  } else if (!isQuiet) {
    ProcMgrMaster::TellOpeningFailed(fd, error);
  }
  opening.scope.reset();
  return fd > 0;
}

// The same on a thread of its own, which an exception must not end.
bool FinishOpeningAside(BegunOpening& opening) {
  try {
    return FinishOpening(opening);
  } catch (const std::exception& error) {
    LogError("PROCMGR: Caught exception=%s", error.what());
    opening.scope.reset();
    return false;
  }
}

// Yields what it tells.
bool Tell(const Outcome& outcome, bool success) {
  if (outcome) {
    outcome(success);
  }
  return success;
}

bool PackStates(const std::vector<Message::AppStateInfo>& list, const std::string& owner,
                Serialization::PieceList& pieces) {
  std::vector<Serialization::PackedItem> packed;
  if (!Serialization::ProcMgrPackAppStateRequest(list, packed)) {
    LogError("PROCMGR : Master ReportAppState failed: PackAppStateRequest failed, owner=%s",
             owner.c_str());
    return false;
  }
  if (!Serialization::ProcMgrCombinePiecesMsg(Message::RequestType::APP_STATE_REPORT, packed,
                                              pieces)) {
    LogError("PROCMGR : Master ReportAppState failed: CombinePiecesMsg failed, owner=%s",
             owner.c_str());
    return false;
  }
  return true;
}

void LogReported(const std::vector<Message::AppStateInfo>& list, const std::string& owner) {
  for (const Message::AppStateInfo& info : list) {
    LogInfo("%s PM report appState to %s, appState=%s, appName=%s, pid=%d",
            BootStrace(kBootTraceTag).c_str(), owner.c_str(),
            GetReportAppStateTypeStr(info.state).c_str(), info.appName.c_str(), info.pid);
  }
}

}  // namespace

ProcMgrMaster::ProcMgrMaster(Handler handler) : handler_(std::move(handler)) {
  attachment.Attach(this);
}

ProcMgrMaster::~ProcMgrMaster() {
  Detach();
  openings.EndAll();
}

void ProcMgrMaster::Detach() const {
  attachment.Detach(this);
}

void ProcMgrMaster::RegServiceCallBack(const std::string& procName, gid_t gid,
                                       const OpenTerms& terms, Outcome outcome) {
  auto opening =
      std::make_shared<BegunOpening>(BegunOpening{procName, gid, terms, BeginOpening(procName)});
  if (opening->scope == nullptr) {
    outcome(false);
    return;
  }
  // Whoever ends the opening tells it: its thread, the end of the process, or the want of a thread.
  const auto told = std::make_shared<const Outcome>(std::move(outcome));
  const bool isPatient = terms.patience.count() != 0;
  if (isPatient) {
    // The few at a time may take long to come to this one; the end of its process doesn't.
    opening->scope->WaitForTurn([told] {
      TellOpeningFailed(kNexioBroken, 0);
      (*told)(false);
    });
  }
  try {
    (isPatient ? patientOpeners_ : openers_).Run([opening, told] {
      if (opening->scope->TakeTurn()) {
        (*told)(FinishOpeningAside(*opening));
      }
    });
  } catch (const std::system_error& error) {
    if (opening->scope->TakeTurn()) {
      opening->scope.reset();
      TellOpeningFailed(kNexioBroken, error.code().value());
      (*told)(false);
    }
  }
}

void ProcMgrMaster::ClearName(const std::string& procName, uid_t uid, gid_t gid) {
  const int result = NexioClearName(procName.c_str(), uid, gid);
  // A service whose name no server can have doesn't serve.
  if (result < 0 && result != kNexioBadName) {
    LogWarning("PROCMGR : can't clear the name of %s, ret=%d", procName.c_str(), result);
  }
}

void ProcMgrMaster::EndOpening(const std::string& procName) {
  openings.End(procName);
}

bool ProcMgrMaster::IsOpening(const std::string& procName) {
  return openings.IsUnderWay(procName);
}

void ProcMgrMaster::TellOpeningFailed(int result, int error) {
  LogError("PROCMGR : RegServiceCallBack failed!! ret=%d, errno=%d", result, error);
}

void ProcMgrMaster::UnRegServiceCallBack(const std::string& procName) {
  CloseLeftOver();
  const int fd = nameTable.TakeForClosing(procName);
  CloseMarked(fd, [procName, fd](int ret) {
    if (ret < 0) {
      LogError("PROCMGR : Master UnRegServiceCallBack failed: NexioClosePipe failed err code: %d",
               ret);
      return;
    }
    LogInfo("PROCMGR : Master UnRegServiceCallBack success proName: %s fd: %d", procName.c_str(),
            fd);
  });
}

std::vector<std::string> ProcMgrMaster::TakeCut(SteadyTime now) {
  std::vector<std::string> names;
  for (CutChannels::Cut& cut : cutChannels.TakeDue(now)) {
    if (nameTable.FdOf(cut.name) == cut.fd) {
      names.push_back(std::move(cut.name));
    }
  }
  return names;
}

void ProcMgrMaster::ProcMgrMasterRequstMsgHandler(int fd, const NexioRequest* req) {
  if (fd < 1) {
    LogError("PROCMGR : ProcMgrMasterRequstMsgHandler failed: invalid fd");
    return;
  }
  if (req == nullptr) {
    LogError("PROCMGR : Master ProcMgrMasterRequstMsgHandler revice req is null : fd: %d", fd);
    NoteCut(fd);
  } else if (ProcMgrMaster* const master = attachment.Enter(); master != nullptr) {
    master->handler_(fd, req);
    attachment.Leave();
  }
  CloseIfMarked(fd);
}

bool ProcMgrMaster::GetProcNameFromFd(int fd, std::string& name) {
  MayWait("GetProcNameFromFd");
  if (!FindName(fd, name)) {
    LogError("PROCMGR : GetProcNameFromFd failed: fd: %d", fd);
    return false;
  }
  return true;
}

int ProcMgrMaster::GetFdFromProcName(const std::string& procName) {
  return nameTable.FdOf(procName);
}

bool ProcMgrMaster::SendRequestMsg(int fd, const Serialization::PieceList& pieces,
                                   Outcome outcome) {
  if (pieces.empty()) {
    LogError("PROCMGR : Master SendRequestMsg failed: RequestPieceMsg is empty");
    return Tell(outcome, false);
  }
  return SendInOrder(fd, pieces, [fd, outcome = std::move(outcome)](int ret) {
           if (ret < 0) {
             LogError("PROCMGR : Master SendRequestMsg failed, err code=%d, fd=%d", ret, fd);
           }
           (void)Tell(outcome, ret >= 0);
         }) >= 0;
}

bool ProcMgrMaster::ReportAppState(const std::vector<Message::AppStateInfo>& list,
                                   const std::string& owner, Outcome outcome) {
  if (list.empty()) {
    return Tell(outcome, true);
  }
  Serialization::PieceList pieces;
  if (!PackStates(list, owner, pieces)) {
    return Tell(outcome, false);
  }
  const int fd = GetFdFromProcName(owner);
  if (fd < 1) {
    LogError("PROCMGR : Master ReportAppState failed: invalid fd, owner=%s", owner.c_str());
    return Tell(outcome, false);
  }
  return SendRequestMsg(fd, pieces, [list, owner, fd, outcome = std::move(outcome)](bool isSent) {
    if (!isSent) {
      LogError("PROCMGR : Master ReportAppState failed: SendRequestMsg %s failed, fd:%d",
               owner.c_str(), fd);
    } else {
      LogReported(list, owner);
    }
    (void)Tell(outcome, isSent);
  });
}

bool ProcMgrMaster::ReportAppDetailStatus(const std::map<std::string, int>& status,
                                          const std::string& owner, Outcome outcome) {
  if (status.empty()) {
    return Tell(outcome, true);
  }
  Serialization::PieceList pieces(1);
  if (!Serialization::ProcMgrPackAppDetailStatus(status, pieces.front())) {
    LogError("PROCMGR : ReportAppDetailStatus SerializeMessage failed");
    return Tell(outcome, false);
  }
  const int fd = GetFdFromProcName(owner);
  if (fd < 1) {
    LogError("PROCMGR : Master ReportAppDetailStatus: invalid fd, owner=%s", owner.c_str());
    return Tell(outcome, false);
  }
  return SendRequestMsg(fd, pieces, [status, owner, fd, outcome = std::move(outcome)](bool isSent) {
    if (!isSent) {
      LogError("PROCMGR : Master ReportAppDetailStatus: SendRequestMsg %s failed, fd:%d",
               owner.c_str(), fd);
    }
    for (const auto& [name, value] : status) {
      if (isSent) {
        LogInfo("%s PM ReportAppDetailStatus to %s, appName=%s, status=%d",
                BootStrace(kBootTraceTag).c_str(), owner.c_str(), name.c_str(), value);
      }
    }
    (void)Tell(outcome, isSent);
  });
}

}  // namespace ProcMgr
