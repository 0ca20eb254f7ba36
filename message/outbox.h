// What waits for room in the queues of its receivers. Used by keeper.cpp only.
#ifndef MESSAGE_OUTBOX_H
#define MESSAGE_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/mutex.h"

namespace ProcMgr {

// How a sending ended: 0, or the library's failure. Called once, by whoever knows it first: the
// sender before Send returns, or the keeper. No lock of ours is held meanwhile; must neither wait
// nor let an exception out.
using SendOutcome = std::function<void(int result)>;

// One message: a request, in one frame or more, or the response to the request `seq`.
struct OutgoingMessage {
  bool isResponse = false;
  std::uint32_t seq = 0;
  std::vector<std::string_view> frames;  // Borrowed for the call; at least one.
};

// Per channel a queue of what its peer has no room for. A message is tried at once and waits only
// if it is refused for want of room, or if others wait already: the frames of a channel keep their
// order. The first that waits is tried again at every TryWaiting; after 401 tries of one frame its
// message fails, and those behind it get one try each until one is accepted. A message stops at its
// first frame that fails; those before it stay sent. Any thread.
class Outbox {
 public:
  static constexpr int kTries = 401;
  // What may wait for one peer, a single message apart. One that doesn't fit fails as if its tries
  // were used up.
  static constexpr std::size_t kMaxBytes = std::size_t{1} << 20;

  // Never waits. Yields what `outcome` is told, or kWaits: then TryWaiting is to be called every
  // 5 ms until it yields false.
  static constexpr int kWaits = 1;
  int Send(int fd, const OutgoingMessage& message, SendOutcome outcome) EXCLUDES(mutex_);

  // Gives everything that waits its try. Yields whether anything still waits.
  bool TryWaiting() EXCLUDES(mutex_);

 private:
  struct Waiting {
    bool isResponse = false;
    std::uint32_t seq = 0;
    std::deque<std::string> frames;
    std::size_t bytes = 0;
    int tries = 0;  // Of the first frame.
    SendOutcome outcome;
  };
  struct Channel {
    std::deque<Waiting> waiting;
    std::size_t bytes = 0;
    bool hasGivenUp = false;  // A message has used up its tries, and none was accepted since.
  };
  using Known = std::vector<std::pair<SendOutcome, int>>;

  // Enters the frames from `first` on; false if there is no room for them.
  [[nodiscard]] bool Keep(int fd, const OutgoingMessage& message, std::size_t first,
                          SendOutcome& outcome) REQUIRES(mutex_);
  static void TryChannel(int fd, Channel& channel, Known& known);
  static void EndFirst(Channel& channel, int result, Known& known);

  Mutex mutex_;  // Held while the library is called, which never waits.
  std::unordered_map<int, Channel> channels_ GUARDED_BY(mutex_);
};

}  // namespace ProcMgr

#endif  // MESSAGE_OUTBOX_H
