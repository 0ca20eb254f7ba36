// What the manager wants from its peers, kept by one thread so that nobody else waits for them: a
// frame that finds no room, and a channel that can't be closed yet.
//
// The functions may be called from any thread and under any lock of the manager: they do what can
// be done at once and leave the rest to the keeper. The thread lives to the end of the process.
#ifndef MESSAGE_KEEPER_H
#define MESSAGE_KEEPER_H

#include <cstdint>
#include <string_view>

#include "message/closings.h"
#include "message/outbox.h"
#include "message/serialization.h"

namespace ProcMgr {

// Starts the thread, so that it isn't made in the moment of need; otherwise the first thing that is
// left to it does.
void StartKeeper();

// Sends the frames of `pieces`, of which there is at least one, behind everything that waits for
// the channel already. Yields what `outcome` is told, or Outbox::kWaits.
int SendInOrder(int fd, const Serialization::PieceList& pieces, SendOutcome outcome);

// The same for the response to the request `seq`.
int RespondInOrder(int fd, std::uint32_t seq, std::string_view text, SendOutcome outcome);

// Closes as `closing` says.
void CloseInTime(Closing closing);

}  // namespace ProcMgr

#endif  // MESSAGE_KEEPER_H
