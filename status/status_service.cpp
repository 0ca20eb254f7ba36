#include "status/status_service.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "base/block_signals.h"
#include "base/may_wait.h"
#include "core/log.h"
#include "status/picture_json.h"
#include "status/request.h"
#include "status/status_socket.h"

namespace ProcMgr::Status {
namespace {

constexpr const char* kSocketName = "/status.sock";
constexpr std::chrono::milliseconds kAcceptPause{100};
// A change behind another one waits so long at most, for more to go with it: to wake for each would
// cost more than all that is said about it.
constexpr std::chrono::milliseconds kTellPause{2};

// So much goes to a watcher at once. One that doesn't read has to be noticed in between.
constexpr std::size_t kManyBytes = std::size_t{64} << 10;

// Where the service's own descriptors stand among those that are polled; the clients' follow.
enum Place : std::size_t { kStop, kChanged, kListener, kFirstClient };

void LogNotServed(const std::string& path, const std::string& fault) {
  LogWarning("PROCMGR : the status is not told at %s: %s", path.c_str(), fault.c_str());
}

// Of several of a name, one with a process.
const AppPicture* FindApp(const Picture& picture, const std::string& name) {
  const AppPicture* found = nullptr;
  for (const AppPicture& app : picture.apps) {
    if (app.facts->name == name && (found == nullptr || (found->pid == 0 && app.pid != 0))) {
      found = &app;
    }
  }
  return found;
}

}  // namespace

bool StatusService::Start(gid_t gid, const std::string& folder) {
  gid_ = gid;
  path_ = folder + kSocketName;
  stop_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  changed_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!stop_.IsOpen() || !changed_.IsOpen()) {
    LogNotServed(path_, "eventfd, errno=" + std::to_string(errno));
    return false;
  }
  std::string fault;
  listener_ = ListenAt(folder, path_, gid, fault);
  if (!listener_.IsOpen()) {
    LogNotServed(path_, fault);
    return false;
  }
  try {
    const BlockSignals block;
    thread_ = std::thread([this] { Serve(); });
    (void)pthread_setname_np(thread_.native_handle(), "status");
  } catch (const std::system_error& error) {
    LogNotServed(path_, "thread, errno=" + std::to_string(error.code().value()));
    Stop();
    return false;
  }
  return true;
}

void StatusService::Stop() {
  MayWait("StatusService");
  if (!listener_.IsOpen()) {
    return;
  }
  if (thread_.joinable()) {
    (void)eventfd_write(stop_.Get(), 1);
    thread_.join();
  }
  listener_.Reset();
  (void)unlink(path_.c_str());
}

// An exception, out of memory above all, costs the clients and not the service.
void StatusService::Serve() {
  bool isStopped = false;
  while (!isStopped) {
    try {
      std::vector<pollfd> polled = Polled();
      if (poll(polled.data(), polled.size(), Timeout()) < 0) {
        continue;  // EINTR, or no memory.
      }
      isStopped = polled[kStop].revents != 0;
      ServeOnce(polled);
    } catch (const std::exception& error) {
      LogError("PROCMGR: Caught exception=%s", error.what());
      clients_.clear();
      DropClients();
    }
  }
  clients_.clear();
  DropClients();
}

void StatusService::ServeOnce(const std::vector<pollfd>& polled) {
  if (polled[kChanged].revents != 0) {
    eventfd_t count = 0;
    (void)eventfd_read(changed_.Get(), &count);
    TellChanges(memory_.TakeChanges());
    tellAgain_ = SteadyNow() + kTellPause;
  }
  ServeClients(polled);
  DropClients();
  // Behind the others: the place of one that has just gone is free.
  if (polled[kListener].revents != 0) {
    Accept();
  }
}

std::vector<pollfd> StatusService::Polled() const {
  std::vector<pollfd> polled(kFirstClient);
  polled[kStop] = {stop_.Get(), POLLIN, 0};
  // poll passes over a negative number.
  const SteadyTime now = SteadyNow();
  polled[kChanged] = {now < tellAgain_ ? -1 : changed_.Get(), POLLIN, 0};
  polled[kListener] = {now < acceptAgain_ ? -1 : listener_.Get(), POLLIN, 0};
  for (const StatusClient& client : clients_) {
    polled.push_back({client.Fd(), client.Events(), 0});
  }
  return polled;
}

// In milliseconds, -1 for no end.
int StatusService::Timeout() const {
  const SteadyTime now = SteadyNow();
  SteadyTime until = SteadyTime::max();
  for (const SteadyTime again : {acceptAgain_, tellAgain_}) {
    until = now < again ? std::min(until, again) : until;
  }
  for (const StatusClient& client : clients_) {
    if (client.HasLine()) {
      return 0;
    }
    until = std::min(until, client.Deadline().value_or(SteadyTime::max()));
  }
  return until == SteadyTime::max() ? -1 : MillisecondsUntil(until);
}

void StatusService::Accept() {
  UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd.IsOpen()) {
    if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
      acceptAgain_ = SteadyNow() + kAcceptPause;
    }
    return;
  }
  if (clients_.size() < kMostClients && IsPeerAllowed(fd.Get(), gid_)) {
    clients_.emplace_back(std::move(fd), SteadyNow());
  }
}

// One line of each at a time: who asks for much waits for those who ask for little.
void StatusService::ServeClients(const std::vector<pollfd>& polled) {
  std::size_t place = kFirstClient;
  for (StatusClient& client : clients_) {
    const short events = polled[place++].revents;
    client.Take(events);
    if ((events & POLLOUT) != 0) {
      client.SendOn(SteadyNow());
    }
    if (const std::optional<std::string> line = client.NextLine()) {
      Answer(client, *line);
    }
  }
}

void StatusService::Answer(StatusClient& client, const std::string& line) {
  const Request request = ParseRequest(line);
  if (request.isWatch) {
    Watch(client);
  } else if (request.get == "status") {
    client.Give(StatusLine(memory_.Copy()), SteadyNow());
  } else if (request.get == "boot") {
    client.Give(BootLine(memory_.CopyBoot()), SteadyNow());
  } else if (request.get == "app") {
    AnswerApp(client, request.name);
  } else {
    client.Give(ErrorLine("unknown request: {\"get\": \"status\"}, {\"get\": \"app\", \"name\": "
                          "NAME}, {\"get\": \"boot\"} and {\"watch\": true} are known"),
                SteadyNow());
  }
}

void StatusService::AnswerApp(StatusClient& client, const std::string& name) {
  const Picture picture = memory_.Copy();
  const AppPicture* const app = FindApp(picture, name);
  if (app == nullptr) {
    client.Give(ErrorLine("unknown application: " + name), SteadyNow());
    return;
  }
  AppSurroundings surroundings;
  surroundings.process = ReadProcFacts(app->pid);
  if (app->facts->kind == AppKind::kBase) {
    surroundings.hasChannel = neighbours_.hasChannel(name);
    surroundings.sinceBeat = neighbours_.sinceBeat(name);
  }
  client.Give(AppLine(*app, picture, surroundings), SteadyNow());
}

// What had changed before this picture was taken is for those who watched already.
void StatusService::Watch(StatusClient& client) {
  Changes before;
  const Picture picture = memory_.BeginWatch(changed_.Get(), before);
  isWatched_ = true;
  TellChanges(before);
  client.isWatching = true;
  client.Give(StatusLine(picture), SteadyNow());
}

void StatusService::TellChanges(const Changes& changes) {
  std::string lines;
  for (const Change& change : changes.list) {
    lines += ChangeLine(change);
    if (lines.size() >= kManyBytes) {
      TellWatchers(std::exchange(lines, {}));
    }
  }
  if (!lines.empty()) {
    TellWatchers(lines);
  }
  if (changes.isOverrun) {
    TellWatchers(StatusLine(memory_.Copy()));
  }
}

void StatusService::TellWatchers(const std::string& lines) {
  for (StatusClient& client : clients_) {
    if (client.isWatching) {
      client.Give(lines, SteadyNow());
    }
  }
}

void StatusService::DropClients() {
  const SteadyTime now = SteadyNow();
  clients_.remove_if([now](const StatusClient& client) { return client.IsOver(now); });
  const bool isWatched = std::any_of(clients_.begin(), clients_.end(),
                                     [](const StatusClient& client) { return client.isWatching; });
  if (isWatched_ && !isWatched) {
    memory_.EndWatch();
  }
  isWatched_ = isWatched;
}

}  // namespace ProcMgr::Status
