// The manager's end of the request channels.
//
// For every base service that reports its state the manager opens one channel and files its
// descriptor under the service's name. A channel belongs to one peer, and that name is all the
// manager knows about who sent a frame.
//
// Threads. The messaging library calls ProcMgrMasterRequstMsgHandler on threads of its own, frames
// of several channels at the same time; every other function may be called from any thread. The
// name table lock is the last in the manager's order of locks: it is held around access to the
// table and never across a call of the library or of handler_.
//
// Two races are settled here:
// - A peer may send in the very instant its channel opens, before the descriptor has been filed.
//   GetProcNameFromFd then waits for the opening that is under way; with none under way it doesn't.
// - UnRegServiceCallBack may run under locks that a callback of the same channel is waiting for.
//   The descriptor is marked first, and whoever gets there first closes it: the tries of
//   UnRegServiceCallBack, or that callback on its way out, however late.
#ifndef MESSAGE_PROC_MGR_MASTER_H
#define MESSAGE_PROC_MGR_MASTER_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "message/nexio.h"
#include "message/request_msg.h"
#include "message/serialization.h"

namespace ProcMgr {

// How long an opening goes on.
struct OpenTerms {
  // Asked once, when GiveUpOpening already finds the opening: true if the peer has gone for good.
  // An end of the peer is thus seen either here or there. May be empty.
  std::function<bool()> isPeerGone;
  // Whether to wait for an opening of the same name that is under way, and to yield what it
  // yields. Otherwise that one is left alone, and the call succeeds at once.
  bool waitsForOther = true;
  // Ends the wait for the peer before the library's own time-out; 0 for not.
  std::chrono::milliseconds patience{0};
};

// One at a time in a process: the library's callback finds it through a static pointer.
class ProcMgrMaster {
 public:
  using Handler = std::function<void(int fd, const NexioRequest* request)>;

  // `handler` is called for every frame of every channel, on the library's threads and concurrently
  // with itself; neither the descriptor nor the request has been checked further than that they are
  // there. It must let no exception out.
  explicit ProcMgrMaster(Handler handler);
  ~ProcMgrMaster();
  ProcMgrMaster(const ProcMgrMaster&) = delete;
  ProcMgrMaster& operator=(const ProcMgrMaster&) = delete;

  // Waits until no callback runs in handler_, and lets none in any more: what the handler uses can
  // be destroyed after it. Not to be called by the handler, nor under a lock that it takes. The
  // destructor calls it.
  void Detach() const;

  // Opens the channel to `procName`, which must run under `gid`. Blocks until the peer is there: up
  // to 3 minutes, or 30 with "VENTRIX_RUN_MODE" at "1". A name has one opening at a time.
  [[nodiscard]] bool RegServiceCallBack(const std::string& procName, gid_t gid,
                                        const OpenTerms& terms = {});

  // Ends the opening of `procName` that is under way, if there is one: it fails. Never blocks.
  void GiveUpOpening(const std::string& procName);

  // Closes it; the name stays in the table without a descriptor. May block for 2 seconds if a
  // callback of the channel is running. If that isn't enough it yields false, and the channel
  // closes when that callback has returned.
  [[nodiscard]] bool UnRegServiceCallBack(const std::string& procName);

  // The function that the library calls.
  static void ProcMgrMasterRequstMsgHandler(int fd, const NexioRequest* req);

  // The name under which `fd` is filed. Yields false, with an error line and `name` as it was, if
  // there is none. May block while a channel is being opened, for 5 seconds at most.
  [[nodiscard]] bool GetProcNameFromFd(int fd, std::string& name);

  // Yields -1 for a name that is unknown or has no open channel.
  [[nodiscard]] int GetFdFromProcName(const std::string& procName);

  // Sends the frames one by one and stops at the first that the transport refuses; those before it
  // stay sent. A peer that doesn't read costs about 2 seconds.
  [[nodiscard]] bool SendRequestMsg(int fd, const Serialization::PieceList& pieces);

  // Tells `owner` about the states in `list`. Nothing is sent for an empty list, which is a
  // success.
  [[nodiscard]] bool ReportAppState(const std::vector<Message::AppStateInfo>& list,
                                    const std::string& owner);

  // Tells `owner` the status of each name (0 there, 1 gone or unknown, 2 stopped). All of them must
  // fit one frame. Nothing is sent for an empty map, which is a success.
  [[nodiscard]] bool ReportAppDetailStatus(const std::map<std::string, int>& status,
                                           const std::string& owner);

 private:
  // Constant from the construction on, so that callbacks need no lock to read it.
  const Handler handler_;
};

}  // namespace ProcMgr

#endif  // MESSAGE_PROC_MGR_MASTER_H
