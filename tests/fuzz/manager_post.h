// The peers of a manager that is fuzzed, and the check of everything that it sends them: each
// message is told its outcome once, what has been queued for a channel comes in that order, and
// nothing is sent to a channel that is closed.
#ifndef TESTS_FUZZ_MANAGER_POST_H
#define TESTS_FUZZ_MANAGER_POST_H

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "message/nexio.h"
#include "message/outbox.h"
#include "message/request_msg.h"
#include "message/serialization.h"
#include "tests/fuzz/manager_stage.h"

namespace PmTest {

struct Peer {
  std::string name;
  ProcMgr::NexioRequestCallback callback;
  int answer = 0;  // What the library says to a frame for it.
  // A frame whose callback has begun and waits for its first lock.
  std::optional<std::string> begun;
  bool isCut = false;      // Its other end has cut it.
  bool isClosing = false;  // Somebody has tried to close it meanwhile.
};

class Post {
 public:
  explicit Post(ManagerStage& stage);
  ~Post();
  Post(const Post&) = delete;
  Post& operator=(const Post&) = delete;

  // What the next openings meet: 0 for a peer, or the library's failure.
  int opening = 0;
  std::map<int, Peer> peers;  // By the descriptor of their channel.

  // Hands a packet to the manager, or with none the end of the connection. Yields its number.
  std::uint32_t Deliver(int fd, const ProcMgr::NexioRequestCallback& callback,
                        const std::string* packet);

  // What has been queued since the last Forget.
  struct Report {
    int fd = 0;
    std::vector<ProcMgr::Message::AppStateInfo> states;
    std::map<std::string, int> status;
  };
  std::vector<Report> reports;
  std::vector<std::pair<int, std::uint32_t>> responses;  // The channel, and to which request.
  void Forget();
  // How often the state of `app` was queued for `fd`.
  [[nodiscard]] std::ptrdiff_t CountStates(int fd, const std::string& app) const;

  [[nodiscard]] bool IsAllTold() const { return untold_ == 0; }

 private:
  using Number = std::uint64_t;
  static constexpr Number kResponse = Number{1} << 32;

  int Open(const ProcMgr::NexioOpenParam& param);
  int Send(int fd, std::uint32_t seq, std::string_view frame);
  int Close(int fd);
  ProcMgr::SendOutcome Queue(int fd, std::vector<Number> numbers, ProcMgr::SendOutcome outcome);
  void NoteReport(int fd, const ProcMgr::Serialization::PieceList& pieces);

  ManagerStage& stage_;
  int lastFd_ = 0;
  std::uint32_t lastSeq_ = 0;
  std::uint32_t lastNumber_ = 0;
  std::map<int, std::deque<Number>> queued_;  // By channel, in their order.
  std::set<Number> sent_;
  std::size_t untold_ = 0;
};

}  // namespace PmTest

#endif  // TESTS_FUZZ_MANAGER_POST_H
