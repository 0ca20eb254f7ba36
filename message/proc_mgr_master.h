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
// Nobody waits here for a peer: an opening goes on aside, on a thread of its own; a report that
// finds no room and a closing that a callback puts off are the keeper's (message/keeper.h).
// Functions that tell an outcome do so once, on the caller's thread or on one of those.
//
// Two races are settled here:
// - A peer may send in the very instant its channel opens, before the descriptor has been filed.
//   GetProcNameFromFd then waits for the opening that is under way; with none under way it doesn't.
// - UnRegServiceCallBack may run under locks that a callback of the same channel is waiting for.
//   The descriptor is taken out of the table and marked first, so that no further frame of it has a
//   sender, and whoever gets there first closes it: the tries, or that callback on its way out.
#ifndef MESSAGE_PROC_MGR_MASTER_H
#define MESSAGE_PROC_MGR_MASTER_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/crew.h"
#include "base/steady_time.h"
#include "message/nexio.h"
#include "message/request_msg.h"
#include "message/serialization.h"

namespace ProcMgr {

// Told once how something ended. Must neither wait nor let an exception out.
using Outcome = std::function<void(bool success)>;

struct OpenTerms {
  // Ends the wait for the peer before the library's own time-out; 0 for not. Such openings give way
  // to others: only a few of them go on at a time.
  std::chrono::milliseconds patience{0};
  // An opening that is ended by EndOpening says nothing in the log: another may follow it.
  bool isEndExpected = false;
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

  // Opens the channel to `procName`, which must run under `gid`. The opening is under way when the
  // call returns, and `outcome` tells how it ended; it waits for the peer up to 3 minutes, or 30
  // with "VENTRIX_RUN_MODE" at "1". A name has one opening at a time; a second one is refused. The
  // caller sees to it that no other process takes the peer's place meanwhile.
  void RegServiceCallBack(const std::string& procName, gid_t gid, const OpenTerms& terms,
                          Outcome outcome);

  // Before each start of a base service: what others have put under its name is removed, told in
  // the log. Never blocks.
  static void ClearName(const std::string& procName, uid_t uid, gid_t gid);

  // The process that an opening of `procName` waits for has ended: ends it, if there is one.
  static void EndOpening(const std::string& procName);
  [[nodiscard]] static bool IsOpening(const std::string& procName);

  // Says in the log that an opening has failed, with the library's result and its errno.
  static void TellOpeningFailed(int result, int error);

  // Closes it; the name stays in the table without a descriptor, and from here on nothing that
  // comes through the channel has a sender. Tries for 2 seconds while a callback of the channel is
  // running; if that isn't enough the channel closes when the callback has returned.
  static void UnRegServiceCallBack(const std::string& procName);

  // The names whose channel its other end has cut, and that have no other one since. Each cut is
  // told once: not before a dead service's end is known, and rarely if a name's are many.
  [[nodiscard]] static std::vector<std::string> TakeCut(SteadyTime now);

  // The function that the library calls.
  static void ProcMgrMasterRequstMsgHandler(int fd, const NexioRequest* req);

  // The name under which `fd` is filed. Yields false, with an error line and `name` as it was, if
  // there is none. May block while a channel is being opened, for 5 seconds at most.
  [[nodiscard]] bool GetProcNameFromFd(int fd, std::string& name);

  // Yields -1 for a name that is unknown or has no open channel.
  [[nodiscard]] int GetFdFromProcName(const std::string& procName);

  // The three that send yield false if the sending has failed already; true if it has succeeded or
  // still goes on. `outcome` tells which it was in the end.

  // Sends the frames one by one and stops at the first that the transport refuses; those before it
  // stay sent. A peer that doesn't read is tried for about 2 seconds.
  static bool SendRequestMsg(int fd, const Serialization::PieceList& pieces, Outcome outcome = {});

  // Tells `owner` about the states in `list`. Nothing is sent for an empty list, which is a
  // success.
  bool ReportAppState(const std::vector<Message::AppStateInfo>& list, const std::string& owner,
                      Outcome outcome = {});

  // Tells `owner` the status of each name (0 there, 1 gone or unknown, 2 stopped). All of them must
  // fit one frame. Nothing is sent for an empty map, which is a success.
  bool ReportAppDetailStatus(const std::map<std::string, int>& status, const std::string& owner,
                             Outcome outcome = {});

 private:
  // Constant from the construction on, so that callbacks need no lock to read it.
  const Handler handler_;

  // The openings aside. Services that have promised no channel get theirs a few at a time.
  static constexpr std::size_t kAnyNumber = 1'000'000;
  static constexpr std::size_t kFew = 4;
  Crew openers_{kAnyNumber};
  Crew patientOpeners_{kFew};
};

}  // namespace ProcMgr

#endif  // MESSAGE_PROC_MGR_MASTER_H
