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
#include <string>
#include <thread>
#include <vector>

#include "core/mutex.h"
#include "message/nexio.h"

namespace ProcMgr::Test {

struct Opened {
  std::string peerName;
  std::uint32_t timeout = 0;
  gid_t gid = 0;
  int cancelFd = -1;
};

struct Sent {
  int fd = 0;
  std::uint32_t seq = 0;
  std::string data;
};

class FakeNexio {
 public:
  static FakeNexio& Instance();

  // Forgets everything but the descriptors used so far, which never come back.
  void Reset();

  // Results for the next calls, in order.
  void ScriptOpen(std::vector<int> results);
  void ScriptClose(std::vector<int> results);
  void ScriptSend(std::vector<int> results);
  void ScriptServer(int result);

  // Runs at the end of every NexioOpen that succeeds, before it returns.
  void OnOpen(std::function<void(int fd)> hook);
  // Runs instead of every sleep.
  void OnSleep(std::function<void()> hook);

  // Delivers a request as the library would: from this thread, marked as a running callback.
  void Deliver(int fd, const NexioRequest* request);

  std::vector<Opened> OpenedChannels();
  std::vector<int> TakeCloseCalls();
  // How often closing `fd` has succeeded.
  int TimesClosed(int fd);
  std::vector<Sent> TakeSent();
  std::vector<std::int64_t> Sleeps();
  NexioServerParam ServerParam();

  // What the functions of the library do.
  int Open(const NexioOpenParam& param);
  int Close(int fd);
  int Send(int fd, std::uint32_t seq, const void* data, std::uint32_t size);
  int CreateServer(const NexioServerParam& param);
  void Sleep(std::int64_t nanoseconds);

 private:
  struct State {
    std::deque<int> openResults;
    std::deque<int> closeResults;
    std::deque<int> sendResults;
    int serverResult = 0;
    std::function<void(int)> onOpen;
    std::function<void()> onSleep;
    std::map<int, NexioRequestCallback> callbacks;
    std::map<int, std::thread::id> running;
    std::vector<Opened> opened;
    std::vector<int> closeCalls;
    std::map<int, int> timesClosed;
    std::vector<Sent> sent;
    std::vector<std::int64_t> sleeps;
    NexioServerParam serverParam;
  };

  Mutex mutex_;
  State state_ GUARDED_BY(mutex_);
  int nextFd_ GUARDED_BY(mutex_) = 1;
};

}  // namespace ProcMgr::Test

#endif  // TESTS_UNIT_MESSAGE_FAKE_NEXIO_H
