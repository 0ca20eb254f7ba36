// A thread that does nothing until it is let go.
#ifndef TESTS_UNIT_HOST_PARKED_THREAD_H
#define TESTS_UNIT_HOST_PARKED_THREAD_H

#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <future>
#include <string>
#include <thread>

namespace ProcMgr::Testing {

class ParkedThread {
 public:
  explicit ParkedThread(const std::string& name)
      : thread_([this] {
          tid_.set_value(static_cast<std::uint32_t>(gettid()));
          release_.get_future().wait();
        }) {
    Rename(name);
    id_ = tid_.get_future().get();
  }
  ~ParkedThread() { End(); }
  ParkedThread(const ParkedThread&) = delete;
  ParkedThread& operator=(const ParkedThread&) = delete;

  [[nodiscard]] std::uint32_t Tid() const { return id_; }

  void Rename(const std::string& name) {
    (void)pthread_setname_np(thread_.native_handle(), name.c_str());
  }

  void End() {
    if (thread_.joinable()) {
      release_.set_value();
      thread_.join();
    }
  }

 private:
  std::promise<std::uint32_t> tid_;
  std::promise<void> release_;
  std::uint32_t id_ = 0;
  std::thread thread_;  // Last: it uses the others.
};

}  // namespace ProcMgr::Testing

#endif  // TESTS_UNIT_HOST_PARKED_THREAD_H
