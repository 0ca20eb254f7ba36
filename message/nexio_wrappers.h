// The messaging library's calls, repeated while the library is busy.
#ifndef MESSAGE_NEXIO_WRAPPERS_H
#define MESSAGE_NEXIO_WRAPPERS_H

#include <cstdint>

#include "message/nexio.h"

namespace ProcMgr {

// Each of the four makes its call up to 401 times while the result is kNexioBusy, with 5 ms of
// sleep between two tries, and yields the last result: a peer that doesn't read costs its sender
// about two seconds. Any thread; for the two RPC forms that of NexioRPCSync.
[[nodiscard]] int ProcMgrNexioSendRequest(int fd, const NexioRequest& request);
[[nodiscard]] int ProcMgrNexioSendResponse(int fd, const NexioResponse& response);
[[nodiscard]] int ProcMgrNexioRPCSync(int fd, const NexioRequest& request, NexioResponse& response);
// The limit holds for each try.
[[nodiscard]] int ProcMgrNexioTimedRPCSync(int fd, const NexioRequest& request,
                                           NexioResponse& response, std::uint32_t timeoutMs);

// Closes, trying up to 10 times, 100 ms apart, while a callback of the descriptor runs on another
// thread.
void ProcMgrNexioClosePipe(int fd);

}  // namespace ProcMgr

#endif  // MESSAGE_NEXIO_WRAPPERS_H
