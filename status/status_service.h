// The status service: tells whoever may ask what the manager remembers (docs/status.md).
//
// One thread serves all clients, by poll. It sleeps until one of them, or a change that one of them
// watches for, wakes it. It takes the memory's lock for copies, no lock of the engine, and nothing
// that the engine does waits for it.
#ifndef STATUS_STATUS_SERVICE_H
#define STATUS_STATUS_SERVICE_H

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/steady_time.h"
#include "base/unique_fd.h"
#include "status/memory.h"
#include "status/status_client.h"

namespace ProcMgr::Status {

inline constexpr const char* kStatusFolder = "/run/process-manager";

// What the service asks others. Called on its thread, for one application at a time.
struct Neighbours {
  std::function<bool(const std::string& name)> hasChannel;
  std::function<std::optional<std::chrono::milliseconds>(const std::string& name)> sinceBeat;
};

class StatusService {
 public:
  static constexpr std::size_t kMostClients = 16;

  StatusService(Memory& memory, Neighbours neighbours)
      : memory_(memory), neighbours_(std::move(neighbours)) {}
  ~StatusService() { Stop(); }
  StatusService(const StatusService&) = delete;
  StatusService& operator=(const StatusService&) = delete;

  // Begins to serve root and the group `gid` at the socket "status.sock" in `folder`. False, with a
  // warning, if it can't; then nobody is served.
  bool Start(gid_t gid, const std::string& folder = kStatusFolder);
  // Ends the thread and removes the socket. May be called twice, and without a start.
  void Stop();

 private:
  void Serve();
  void ServeOnce(const std::vector<pollfd>& polled);
  [[nodiscard]] std::vector<pollfd> Polled() const;
  [[nodiscard]] int Timeout() const;
  void Accept();
  void ServeClients(const std::vector<pollfd>& polled);
  void Answer(StatusClient& client, const std::string& line);
  void AnswerApp(StatusClient& client, const std::string& name);
  void Watch(StatusClient& client);
  void TellChanges(const Changes& changes);
  void TellWatchers(const std::string& lines);
  void DropClients();

  Memory& memory_;
  const Neighbours neighbours_;

  // Constant while the thread runs.
  gid_t gid_ = 0;
  std::string path_;
  UniqueFd listener_;
  UniqueFd stop_;     // Readable when the thread is to end.
  UniqueFd changed_;  // Readable when changes wait.
  std::thread thread_;

  // Of the thread alone.
  std::list<StatusClient> clients_;
  bool isWatched_ = false;
  SteadyTime acceptAgain_{};  // After a shortage of descriptors.
  SteadyTime tellAgain_{};
};

}  // namespace ProcMgr::Status

#endif  // STATUS_STATUS_SERVICE_H
