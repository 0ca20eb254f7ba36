// Processes that are none of the manager's, in the same range of pids.
#ifndef TORTURE_BYSTANDERS_H
#define TORTURE_BYSTANDERS_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace PmTorture {

// While it lives, a number of processes come and go beside the manager's and get the pids that
// those leave. A signal that was meant for a process which has ended already hits one of them.
class Bystanders {
 public:
  explicit Bystanders(std::size_t count);
  // Ends them all.
  ~Bystanders();
  Bystanders(const Bystanders&) = delete;
  Bystanders& operator=(const Bystanders&) = delete;

  // How many have lived so far, and how many of them were ended by a signal.
  [[nodiscard]] std::size_t Lived() const { return lived_; }
  [[nodiscard]] std::size_t Hit() const { return hit_; }
  // How often the kernel has begun anew with the lowest pids.
  [[nodiscard]] std::size_t Wraps() const { return wraps_; }

 private:
  void Body(std::size_t count);
  void Await(pid_t pid);

  std::atomic<std::size_t> lived_ = 0;
  std::atomic<std::size_t> hit_ = 0;
  std::atomic<std::size_t> wraps_ = 0;
  std::atomic<bool> isEnding_ = false;
  std::thread thread_;
};

}  // namespace PmTorture

#endif  // TORTURE_BYSTANDERS_H
