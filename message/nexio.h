// The interface of the messaging library.
//
// platform/nexio holds the implementation that this project ships; a platform with a library of its
// own implements this header instead. docs/nexio.md describes the wire.
//
// Results are ints: 0 or more is success, a negative value is the failure. Callbacks of one
// descriptor come one at a time and in the order of arrival; those of different descriptors run
// beside each other, on threads of the library. A callback must not let an exception out. Every
// function may be called from any thread, and from inside a callback.
#ifndef MESSAGE_NEXIO_H
#define MESSAGE_NEXIO_H

#include <sys/types.h>

#include <cstdint>
#include <functional>

namespace ProcMgr {

inline constexpr int kNexioBusy = -11;      // The peer's queue is full just now.
inline constexpr int kNexioBadFd = -9;      // No such descriptor.
inline constexpr int kNexioDenied = -13;    // The peer runs under another group.
inline constexpr int kNexioCallback = -16;  // A callback of the descriptor runs on another thread.
inline constexpr int kNexioBadName = -22;   // Not a name of a server.
inline constexpr int kNexioBroken = -32;    // The connection has broken.
inline constexpr int kNexioTooLong = -90;   // More data than fits.
inline constexpr int kNexioTimeout = -110;  // The time is up.

// What one packet may carry, in bytes.
inline constexpr std::uint32_t kNexioMaxData = 65536;

// A message that asks. In a callback the record and its data are the library's and valid for the
// call; a sender sets `data` and `size` only, and the data is copied before the call returns.
struct NexioRequest {
  std::uint32_t seq = 0;
  const void* data = nullptr;
  std::uint32_t size = 0;
};

// A message that answers. A sender copies `seq` from the request. The two RPC calls take it as the
// caller's buffer, of `size` bytes at `data`, and leave the response's own length in `size`.
struct NexioResponse {
  std::uint32_t seq = 0;
  void* data = nullptr;
  std::uint32_t size = 0;
};

// A null request tells, once and after everything that had arrived, that the connection has broken.
using NexioRequestCallback = std::function<void(int fd, const NexioRequest* request)>;
using NexioConnectCallback =
    std::function<void(int fd, const char* clientName, std::uint32_t length)>;

// The process at the other end, as the kernel recorded it: a client at its connect, a server at its
// listen. The process may have ended since, and its pid may have become another's.
struct NexioPeer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Called on a thread of the library for each connection, before anything is read from it; false
// closes it with a log line. Must not let an exception out.
using NexioPeerFilter = std::function<bool(const NexioPeer& peer)>;

struct NexioOpenParam {
  const char* peerName = nullptr;  // Borrowed for the call.
  NexioRequestCallback requestCallback;
  std::uint32_t timeout = 0;  // Milliseconds to wait for the peer to come.
  std::uint32_t constant1 = 1;
  gid_t gid = 0;  // The peer's group id must be this one.
  std::uint32_t constant2 = 1;
  std::uint64_t constant3 = 0;
  std::int32_t constant4 = -1;
  std::uint8_t constant5 = 0;
  std::uint32_t constant6 = 0;
  std::uint64_t constant7 = 0;
  // A descriptor that becomes readable when the wait for the peer is to be given up (an eventfd,
  // say); borrowed for the call, -1 for none. The open then yields kNexioBroken.
  int cancelFd = -1;
};

struct NexioServerParam {
  NexioConnectCallback connectCallback;
  NexioRequestCallback requestCallback;
  std::uint32_t maxClients = 1000;
  std::uint32_t constant1 = 1;
  // The server's own name, borrowed for the call; null: the PROC_NAME of the environment.
  const char* serverName = nullptr;
  NexioPeerFilter peerFilter;  // Null lets every client in.
};

// Opens a channel to the named server. Yields its descriptor, 1 or more and never used a second
// time in the life of the process. Blocks until the peer is there, at most `timeout`.
[[nodiscard]] int NexioOpen(const NexioOpenParam& param);

// Serves `param.serverName`: the callbacks then serve every client. Yields 0 or more.
[[nodiscard]] int NexioCreateServer(const NexioServerParam& param);

// Makes the name of a service free that is about to be started under `uid` and `gid`: whoever may
// write to the place of the names could have put something there that its server can't replace.
// Left is what the service replaces or has itself, and what a process of `gid` serves (the service
// may have an orphan); everything else is removed, followed nowhere and told in the log, with the
// process that served it. Needs root. Yields 0, also if nothing stood there, or a negative errno.
// Never blocks.
[[nodiscard]] int NexioClearName(const char* name, uid_t uid, gid_t gid);

// Neither blocks: a peer that doesn't read costs its sender nothing but kNexioBusy.
[[nodiscard]] int NexioSendRequest(int fd, const NexioRequest& request);
[[nodiscard]] int NexioSendResponse(int fd, const NexioResponse& response);

// Sends a request and waits for its response. The form with a limit gives up after `timeoutMs`. Not
// to be called inside a callback of the same descriptor, whose response could then not come in.
[[nodiscard]] int NexioRPCSync(int fd, const NexioRequest& request, NexioResponse& response);
[[nodiscard]] int NexioTimedRPCSync(int fd, const NexioRequest& request, NexioResponse& response,
                                    std::uint32_t timeoutMs);

// Closes a channel or a server. No callback of the descriptor runs after a result of 0 or more, but
// for the one that called. kNexioCallback: a callback of it runs on another thread. No further one
// begins, and the descriptor closes when that one returns, even if nobody asks again; who does asks
// until it yields 0. So neither a caller's lock that the callback wants, nor a peer that never
// falls silent, keeps a descriptor open. A server closes with all of its connections.
[[nodiscard]] int NexioClosePipe(int fd);

// Tells who is at the other end of the channel `fd`. Yields 0, or kNexioBadFd with `out` untouched.
[[nodiscard]] int NexioGetPeer(int fd, NexioPeer& out);

}  // namespace ProcMgr

#endif  // MESSAGE_NEXIO_H
