#include "platform/heartbeat/heartbeat_watcher.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "base/block_signals.h"
#include "core/log.h"

namespace ProcMgr::HeartBeat {
namespace {

// Beats taken off the socket before deadlines are looked at: more than a queue holds, and yet
// bounded, so that a flood can't keep a loss from being told.
constexpr int kBeatsPerTurn = 1024;

// A check that comes so much later than its time: the manager was stopped, or had no core, and
// those who are to beat perhaps just as well.
constexpr std::chrono::milliseconds kLate{500};

bool MakeAddress(const std::string& path, sockaddr_un& out) {
  out = {};
  out.sun_family = AF_UNIX;
  if (path.size() >= sizeof(out.sun_path)) {
    return false;
  }
  path.copy(out.sun_path, path.size());
  return true;
}

bool IsServed(const sockaddr_un& address) {
  const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// Binds `fd` and makes the file the owner's alone. Yields 0 or an errno.
int Bind(int fd, const sockaddr_un& address) {
  // The file takes its mode from the socket, so it is never open to anybody else.
  if (fchmod(fd, SocketAccess::kOwnerOnly) != 0) {
    return errno;
  }
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (bind(fd, generic, sizeof(address)) != 0) {
    if (errno != EADDRINUSE || IsServed(address)) {
      return errno;
    }
    // Left behind by a process that ended.
    if ((unlink(address.sun_path) != 0 && errno != ENOENT) ||
        bind(fd, generic, sizeof(address)) != 0) {
      return errno;
    }
  }
  return 0;
}

const ucred* FindCredentials(msghdr& message) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS) {
      return reinterpret_cast<const ucred*>(CMSG_DATA(part));
    }
  }
  return nullptr;
}

}  // namespace

Watcher::Watcher(std::string path, Limits limits)
    : path_(std::move(path)), table_(limits), access_(path_) {}

Watcher::~Watcher() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
  }
  (void)eventfd_write(wake_.Get(), 1);
  thread_.join();
}

int Watcher::Start() {
  sockaddr_un address{};
  if (!MakeAddress(path_, address)) {
    return ENAMETOOLONG;
  }
  UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // The kernel adds the sender's ids to what is sent after this call; so before the name exists.
  constexpr int kOn = 1;
  if (!wake.IsOpen() || !fd.IsOpen() ||
      setsockopt(fd.Get(), SOL_SOCKET, SO_PASSCRED, &kOn, sizeof(kOn)) != 0) {
    return errno;
  }
  if (const int error = Bind(fd.Get(), address); error != 0) {
    return error;
  }
  socket_ = std::move(fd);
  wake_ = std::move(wake);
  try {
    const BlockSignals block;
    thread_ = std::thread([this] { ThreadBody(); });
  } catch (const std::system_error& error) {
    Retract();
    return error.code().value();
  }
  (void)pthread_setname_np(thread_.native_handle(), "heartbeat");
  return 0;
}

void Watcher::Retract() {
  (void)unlink(path_.c_str());
}

void Watcher::Register(std::string_view name, gid_t gid, HeartBeatNotify notify) {
  const MutexLock lock(mutex_);
  table_.Register(name, gid, notify, SteadyNow());
  access_.Admit(gid);
  (void)eventfd_write(wake_.Get(), 1);
}

void Watcher::Unregister(std::string_view name) {
  const MutexLock lock(mutex_);
  table_.Unregister(name);
}

std::optional<SteadyTime> Watcher::LastBeat(std::string_view name) {
  const MutexLock lock(mutex_);
  return table_.LastBeat(name);
}

void Watcher::ThreadBody() noexcept {
  while (true) {
    WaitForWork();
    {
      const MutexLock lock(mutex_);
      if (stopping_) {
        return;
      }
    }
    Tell(HearAndExpire());
  }
}

void Watcher::WaitForWork() {
  std::optional<SteadyTime> next;
  {
    const MutexLock lock(mutex_);
    next = table_.NextCheck();
  }
  pollfd entries[] = {{socket_.Get(), POLLIN, 0}, {wake_.Get(), POLLIN, 0}};
  (void)poll(entries, 2, next ? MillisecondsUntil(*next) : -1);
  eventfd_t count = 0;
  (void)eventfd_read(wake_.Get(), &count);
}

std::vector<News> Watcher::HearAndExpire() {
  // First what has come, then what hasn't: a beat that lies in the queue is no silence.
  std::vector<News> news;
  for (int left = kBeatsPerTurn; left > 0 && HearOne(news); --left) {
  }
  const MutexLock lock(mutex_);
  const SteadyTime now = SteadyNow();
  if (table_.NextCheck().value_or(now) + kLate < now) {
    table_.Spare(now);
  }
  table_.Expire(now, news);
  return news;
}

bool Watcher::HearOne(std::vector<News>& news) {
  // One byte more than a name has, so that a longer one shows. Descriptors that a sender passes
  // along find no room and are dropped by the kernel.
  char text[kMaxName + 1];
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  iovec part{text, sizeof(text)};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t length = recvmsg(socket_.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (length < 0) {
    return errno == EINTR;
  }
  const ucred* const sender = FindCredentials(message);
  const std::string_view name(text, static_cast<std::size_t>(length));
  if (sender == nullptr || name.empty() || name.size() > kMaxName) {
    return true;
  }
  BeatResult result = BeatResult::kUnknown;
  {
    const MutexLock lock(mutex_);
    result = table_.Beat(name, sender->gid, sender->pid, SteadyNow(), news);
  }
  if (result == BeatResult::kStrangerAnew) {
    LogWarning("HEARTBEAT : beat of a wrong group ignored, app=%.*s, pid=%d, gid=%u",
               static_cast<int>(name.size()), name.data(), sender->pid, sender->gid);
  }
  return true;
}

void Watcher::Tell(const std::vector<News>& news) {
  for (const News& item : news) {
    {
      // The registration may have ended meanwhile, or have begun anew for the same name.
      const MutexLock lock(mutex_);
      if (stopping_ || !table_.IsCurrent(item)) {
        continue;
      }
    }
    const SteadyTime before = SteadyNow();
    (void)item.notify(item.name.c_str(), item.name.size(), item.pid, item.status);
    // The receiver may keep us waiting for its locks. Beats that found the queue full meanwhile
    // are no fault of their senders.
    const SteadyTime after = SteadyNow();
    const MutexLock lock(mutex_);
    table_.Excuse(after - before, after);
  }
}

}  // namespace ProcMgr::HeartBeat
