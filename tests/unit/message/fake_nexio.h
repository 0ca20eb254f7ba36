// A messaging library without sockets, linked instead of the real one. Its results are the test's;
// without one it behaves like the library: descriptors count up, a channel can't be closed while
// one of its callbacks runs on another thread, and a closed descriptor is unknown. Sleeping takes
// no time.
#ifndef TESTS_UNIT_MESSAGE_FAKE_NEXIO_H
#define TESTS_UNIT_MESSAGE_FAKE_NEXIO_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "message/nexio.h"

namespace ProcMgr::Test {

struct Sent {
  int fd = 0;
  std::uint32_t seq = 0;
  std::string data;
};

class FakeNexio {
 public:
  struct State {
    // Results for the next calls, in order.
    std::deque<int> openResults;
    std::deque<int> closeResults;
    std::deque<int> sendResults;
    int serverResult = 0;
    // Runs at the beginning of every NexioOpen, which may take its time there.
    std::function<void(const NexioOpenParam& param)> onOpening;
    // Runs at the end of every NexioOpen that succeeds, before it returns.
    std::function<void(int fd)> onOpen;
    // Runs instead of every sleep.
    std::function<void()> onSleep;

    // The channels that are open, and the threads that run their callbacks.
    std::map<int, NexioRequestCallback> callbacks;
    std::map<int, std::thread::id> running;

    // What has been asked for.
    std::vector<NexioOpenParam> opened;
    std::vector<std::string> openedNames;
    std::vector<int> closeCalls;
    std::map<int, int> timesClosed;
    std::vector<Sent> sent;
    std::vector<std::int64_t> sleeps;
    NexioServerParam serverParam;
  };

  // The state, locked to the end of the expression.
  class Locked {
   public:
    explicit Locked(FakeNexio& fake) : lock_(fake.mutex_), state_(fake.state_) {}
    State* operator->() { return &state_; }

   private:
    std::unique_lock<std::mutex> lock_;
    State& state_;
  };
  Locked operator->() { return Locked(*this); }

  static FakeNexio& Instance();

  // Forgets everything but the descriptors used so far, which never come back.
  void Reset();

  // Delivers a request as the library would: from this thread, marked as a running callback.
  void Deliver(int fd, const NexioRequest* request);

  // What the functions of the library do.
  int Open(const NexioOpenParam& param);
  int Close(int fd);
  int Send(int fd, std::uint32_t seq, const void* data, std::uint32_t size);
  void Sleep(std::int64_t nanoseconds);

 private:
  std::mutex mutex_;
  State state_;
  int nextFd_ = 1;
};

}  // namespace ProcMgr::Test

#endif  // TESTS_UNIT_MESSAGE_FAKE_NEXIO_H
