// One connection.
//
// Its life: it is watched from its Start on; when epoll says that something has come, one thread of
// the reactor serves it: it reads a packet, runs the callback, reads the next. When there is no
// more, or after its slice of time, it arms the socket again and leaves. So callbacks come one at a
// time and in order, and the kernel's queue is the only one there is: a slow callback leaves
// packets where they count against their sender.
//
// A thread that waits for a response doesn't wait for a thread of the reactor: it reads the socket
// itself, which saves a change of threads and works even if all of them are busy or it is one of
// them. Requests that it meets on the way go to `inbox_`, in order, and a thread of the reactor is
// called for them.
//
// An accepted connection first waits for its hello; until that has come nobody outside the library
// knows of it, and its end is silent.
#ifndef PLATFORM_NEXIO_CHANNEL_H
#define PLATFORM_NEXIO_CHANNEL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "message/nexio.h"
#include "platform/nexio/nexio_peer.h"
#include "platform/nexio/packet.h"
#include "platform/nexio/reactor.h"
#include "platform/nexio/wire_io.h"

namespace ProcMgr::Nexio {

class Server;

// Shared by a server and its connections.
struct Callbacks {
  NexioConnectCallback onConnect;
  NexioRequestCallback onRequest;
};

class Channel {
 public:
  // A connection to the server `peerName`.
  Channel(int handle, UniqueFd socket, const NexioPeer& peer, std::string peerName,
          std::shared_ptr<const Callbacks> callbacks);
  // A connection that `server` has accepted; it must say hello by `helloDeadline`.
  Channel(int handle, UniqueFd socket, const NexioPeer& peer, std::shared_ptr<Server> server,
          std::shared_ptr<const Callbacks> callbacks, SteadyTime helloDeadline);

  // Begins to read. Callbacks can run before it returns. Yields 0 or a negative errno.
  [[nodiscard]] int Start();

  [[nodiscard]] int SendRequest(const NexioRequest& request);
  [[nodiscard]] int SendResponse(const NexioResponse& response);
  // A request and its response; no deadline: for ever.
  [[nodiscard]] int Call(const NexioRequest& request, NexioResponse& response,
                         std::optional<SteadyTime> deadline) EXCLUDES(mutex_);
  // As NexioAwaitRoom.
  [[nodiscard]] int AwaitRoom(SteadyTime deadline);
  // As NexioClosePipe.
  [[nodiscard]] int Close() EXCLUDES(mutex_);

  [[nodiscard]] const NexioPeer& Peer() const { return peer_; }

  // Called by the reactor: something has come, to be received into `buffer`; the time is up for the
  // hello or, later on, for leaving the socket unwatched.
  void Serve(std::span<std::byte> buffer) EXCLUDES(mutex_);
  void AlarmIsDue() EXCLUDES(mutex_);

 private:
  // A thread that waits for a response, on its stack.
  struct Waiter {
    std::uint32_t seq = 0;
    NexioResponse* response = nullptr;
    std::optional<int> result;
  };
  struct StoredRequest {
    std::uint32_t seq = 0;
    std::vector<std::byte> data;
  };
  enum class Read { kPacket, kNothing, kBroken };

  [[nodiscard]] Token MyToken() const { return {TokenKind::kChannel, handle_}; }

  // Does the next thing there is to do for the serving thread; false if there is none.
  bool ServeOne(std::span<std::byte> buffer) REQUIRES(mutex_);
  // Nothing has come. In a stream, a thread that went to sleep at once would be woken for every
  // single packet, which costs the sender more than the packet itself; so it naps and finds
  // several. Yields whether to look again.
  bool NapInStream() REQUIRES(mutex_);
  // Takes one packet off the socket and checks it. A packet that breaks a rule, like the end of
  // the connection, breaks the channel.
  Read ReadPacket(std::span<std::byte> buffer, Packet& out) REQUIRES(mutex_);
  // The same, with a short wait for the packet. In a row of questions and answers the next question
  // then comes at half the cost of the way through epoll.
  Read LingerForPacket(std::span<std::byte> buffer, Packet& out) REQUIRES(mutex_);
  // The same for what has been received already.
  Read TakePacket(std::span<std::byte> buffer, Receipt receipt, std::size_t length, Packet& out)
      REQUIRES(mutex_);
  [[nodiscard]] const char* FindFault(const Packet& packet) const REQUIRES(mutex_);
  void Break(const char* fault) REQUIRES(mutex_);

  // Releases the lock for the line. A shortage costs the packet at hand and nothing else.
  void TellNoMemory() REQUIRES(mutex_);
  void TellFault() REQUIRES(mutex_);

  // These run a callback, with the lock released.
  void DeliverHello(const Packet& packet) REQUIRES(mutex_);
  void DeliverRequest(const NexioRequest* request) REQUIRES(mutex_);
  void DeliverEnd() REQUIRES(mutex_);
  template <typename Callback>
  void RunCallback(const Callback& callback) REQUIRES(mutex_);

  void Answer(const Packet& packet) REQUIRES(mutex_);
  void AwaitResponse(Waiter& waiter, const std::optional<SteadyTime>& deadline) REQUIRES(mutex_);
  void ReadForWaiter(const std::optional<SteadyTime>& deadline) REQUIRES(mutex_);
  void StoreRequest(const Packet& packet) REQUIRES(mutex_);
  void StopWatching() REQUIRES(mutex_);
  // Has a thread of the reactor come, unless one is there or on its way.
  void CallServer() REQUIRES(mutex_);
  [[nodiscard]] bool InboxIsFull() const REQUIRES(mutex_);

  // Sees to it that what comes next finds somebody, when nobody reads any more.
  void Rest() REQUIRES(mutex_);
  // The same after a call. While one call follows the other, nobody watches in between, which would
  // cost each of them two ways into the kernel: the next call finds what has come, or an alarm.
  void RestAfterCall() REQUIRES(mutex_);
  void Shut() REQUIRES(mutex_);
  // Takes the handle out of the process's tables. `late`: the close was asked for earlier, and the
  // one who asked may ask again.
  void Detach(bool late) EXCLUDES(mutex_);

  // Constant.
  const int handle_;
  const UniqueFd socket_;
  const NexioPeer peer_;
  Reactor& reactor_;
  const std::shared_ptr<Server> server_;  // None for a connection that this side opened.
  const std::shared_ptr<const Callbacks> callbacks_;
  const SteadyTime helloDeadline_;

  // How many sequence numbers have been given out, from 1 on; the wire carries the low half.
  std::atomic<std::uint64_t> seqCount_ = 0;
  // Set once, under the lock. Senders read them without it and in no order (relaxed): nothing else
  // is read on their word, and a sender that sees one late gets the kernel's error instead.
  std::atomic<bool> broken_ = false;
  std::atomic<bool> closed_ = false;
  // A hint, in no order: something was sent since the last packet came.
  std::atomic<bool> hasSent_ = false;

  // Taken after a server's lock and before the reactor's. Never held during a callback.
  Mutex mutex_;
  CondVar changed_;
  std::string peerName_ GUARDED_BY(mutex_);
  bool awaitsHello_ GUARDED_BY(mutex_) = false;
  bool armed_ GUARDED_BY(mutex_) = false;
  bool posted_ GUARDED_BY(mutex_) = false;
  bool serving_ GUARDED_BY(mutex_) = false;  // A thread of the reactor is in Serve.
  bool reads_ GUARDED_BY(mutex_) = false;    // A thread reads the socket outside the lock.
  bool inCallback_ GUARDED_BY(mutex_) = false;
  std::thread::id callbackThread_ GUARDED_BY(mutex_);
  bool closeWanted_ GUARDED_BY(mutex_) = false;  // Close came while a callback ran.
  bool detachDue_ GUARDED_BY(mutex_) = false;    // Serve closed it and must detach it.
  bool endTold_ GUARDED_BY(mutex_) = false;
  bool strayTold_ GUARDED_BY(mutex_) = false;  // A response for nobody has been logged.
  bool inStream_ GUARDED_BY(mutex_) = false;   // This turn began at once after the last one,
  bool inRow_ GUARDED_BY(mutex_) = false;      // or soon after it.
  bool napped_ GUARDED_BY(mutex_) = false;     // The turn has slept since the last packet.
  SteadyTime lastTurn_ GUARDED_BY(mutex_);
  SteadyTime lastCall_ GUARDED_BY(mutex_);
  bool watchDelayed_ GUARDED_BY(mutex_) = false;  // An alarm will have the socket watched.
  int readErrors_ GUARDED_BY(mutex_) = 0;
  const char* fault_ GUARDED_BY(mutex_) = nullptr;
  std::list<Waiter*> waiters_ GUARDED_BY(mutex_);
  std::deque<StoredRequest> inbox_ GUARDED_BY(mutex_);
  std::size_t inboxBytes_ GUARDED_BY(mutex_) = 0;
};

}  // namespace ProcMgr::Nexio

#endif  // PLATFORM_NEXIO_CHANNEL_H
