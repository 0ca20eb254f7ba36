// Threads that no signal of the process goes to.
#ifndef BASE_BLOCK_SIGNALS_H
#define BASE_BLOCK_SIGNALS_H

#include <pthread.h>

#include <csignal>

namespace ProcMgr {

// Blocks every signal for the calling thread while it lives. A thread that is made meanwhile
// inherits the mask and keeps it: the process's signals go to its own threads.
class BlockSignals {
 public:
  BlockSignals() {
    sigset_t all;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~BlockSignals() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockSignals(const BlockSignals&) = delete;
  BlockSignals& operator=(const BlockSignals&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace ProcMgr

#endif  // BASE_BLOCK_SIGNALS_H
