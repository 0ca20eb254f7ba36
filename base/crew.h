// Threads for jobs that wait for somebody, so that whoever asks for them doesn't.
#ifndef BASE_CREW_H
#define BASE_CREW_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <thread>
#include <vector>

#include "base/mutex.h"

namespace ProcMgr {

// Runs jobs on threads that it makes when there is work. One that has nothing to do stays for a
// while, since jobs come in bursts and to make a thread costs more than most jobs. They block all
// signals. Any thread may call.
class Crew {
 public:
  static constexpr std::chrono::milliseconds kStay{1000};

  // At most `limit` jobs run at a time; further ones wait for their turn.
  explicit Crew(std::size_t limit) : limit_(limit) {}
  // Waits until every job has run.
  ~Crew();
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  // Never waits. `job` must let no exception out. Throws std::system_error, and drops the job, if
  // the limit allows a thread and the system has none.
  void Run(std::function<void()> job) EXCLUDES(mutex_);

 private:
  void Body() EXCLUDES(mutex_);
  // Yields false if none has come for so long that the thread is to end.
  [[nodiscard]] bool AwaitJob() REQUIRES(mutex_);
  // Joins the threads that have nothing left to do.
  void JoinEnded() REQUIRES(mutex_);

  const std::size_t limit_;
  Mutex mutex_;
  CondVar come_;  // A job, or the end.
  CondVar left_;
  std::deque<std::function<void()>> jobs_ GUARDED_BY(mutex_);
  std::size_t idle_ GUARDED_BY(mutex_) = 0;  // So many threads wait for a job.
  bool isEnding_ GUARDED_BY(mutex_) = false;
  std::list<std::thread> threads_ GUARDED_BY(mutex_);
  std::vector<std::thread::id> ended_ GUARDED_BY(mutex_);  // The last thing that they do.
};

}  // namespace ProcMgr

#endif  // BASE_CREW_H
