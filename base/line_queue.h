// Lines for a reader that may be slow or may have stopped to read, so that only one thread waits.
#ifndef BASE_LINE_QUEUE_H
#define BASE_LINE_QUEUE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <thread>

#include "base/line_ring.h"
#include "base/mutex.h"
#include "base/steady_time.h"

namespace ProcMgr {

// Where the lines go. Called on the queue's thread alone, one call at a time; may wait, lets no
// exception out, and never pushes itself.
class LineWriter {
 public:
  virtual ~LineWriter() = default;

  virtual void Write(int level, const char* text) = 0;
  // Stands where the next `count` lines would have been.
  virtual void TellLost(std::uint64_t count) = 0;
};

// Any thread pushes; a thread of the queue's own writes the lines in the order of the pushes. A
// line that finds the queue full waits for a writer that gets on, and is lost, and counted, if it
// doesn't: all callers together wait at most 100 ms, and 1 ms more for each line written since. So
// a reader that takes 1000 lines a second, as one does that has to share a busy machine, loses none
// of any burst, and one that doesn't read costs nobody more than the 100 ms, once.
class LineQueue {
 public:
  static constexpr std::chrono::milliseconds kPatience{100};
  static constexpr std::chrono::milliseconds kPatienceOfALine{1};

  // `writer` outlives the queue.
  explicit LineQueue(LineWriter& writer) : writer_(writer) {}
  // Waits for the writer, however long it takes; a queue whose writer may never return must not be
  // destroyed.
  ~LineQueue();
  LineQueue(const LineQueue&) = delete;
  LineQueue& operator=(const LineQueue&) = delete;

  // Starts the thread, which blocks all signals, unless it runs. Throws std::system_error if there
  // is none to be had. Start and End are called by one thread at a time.
  void Start() EXCLUDES(mutex_);

  // When a line is written: at once, or no later than with the next line that is to be written at
  // once, with the kTogether-th that waits, or at a call of Flush. To wake the writer for each line
  // costs whoever makes many more than the lines do.
  enum class Urgency { kNow, kTogether };
  static constexpr std::size_t kTogether = 64;

  // Takes a copy of `text`, at most LineRing::kMaxTextBytes, and needs no memory for it. Before
  // Start and after End lines go nowhere.
  void Push(int level, std::string_view text, Urgency urgency = Urgency::kNow) EXCLUDES(mutex_);
  // Has the writer begin with what waits. Doesn't wait for it.
  void Flush() EXCLUDES(mutex_);

  // Takes no more lines and waits for at most `patience` until those that are here have been
  // written. Yields true if they have, or nothing was started, and the thread has ended. Otherwise
  // the thread is left in its write; it goes on if that ever returns.
  [[nodiscard]] bool End(std::chrono::milliseconds patience) EXCLUDES(mutex_);

 private:
  void Body() EXCLUDES(mutex_);
  void AwaitLine() REQUIRES(mutex_);
  void WriteFront() REQUIRES(mutex_);
  void WriteLoss() REQUIRES(mutex_);
  void NoteProgress() REQUIRES(mutex_);
  // Each yields false if there is no room; the latter if there is none to be waited for any more.
  [[nodiscard]] bool TryPush(int level, std::string_view text) REQUIRES(mutex_);
  [[nodiscard]] bool AwaitRoom() REQUIRES(mutex_);
  // Yields whether the writer has to be notified, which is cheaper without the lock.
  [[nodiscard]] bool TakeSleep() REQUIRES(mutex_);

  LineWriter& writer_;
  std::thread thread_;

  Mutex mutex_;
  CondVar filled_;  // There is something to write, or nothing more will come.
  CondVar room_;
  CondVar ended_;
  LineRing ring_ GUARDED_BY(mutex_);
  std::uint64_t lost_ GUARDED_BY(mutex_) = 0;  // Since the newest line of the ring.
  bool isOpen_ GUARDED_BY(mutex_) = false;
  bool isWriting_ GUARDED_BY(mutex_) = false;  // The thread hasn't left its body.
  bool isAsleep_ GUARDED_BY(mutex_) = false;   // It waits, and nobody has notified it yet.
  // How many callers wait for room, and how many lines were written since these were woken.
  int waiters_ GUARDED_BY(mutex_) = 0;
  std::size_t freed_ GUARDED_BY(mutex_) = 0;
  // When a line was last written, or the writer was woken or had a first one to write; and for how
  // long after that callers wait for the next.
  SteadyTime progressAt_ GUARDED_BY(mutex_);
  SteadyTime::duration patience_ GUARDED_BY(mutex_) = kPatience;
};

}  // namespace ProcMgr

#endif  // BASE_LINE_QUEUE_H
