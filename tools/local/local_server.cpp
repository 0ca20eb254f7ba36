#include "tools/local/local_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <system_error>

#include "base/socket_peer.h"
#include "base/unix_address.h"
#include "tools/local/stream.h"

namespace Local {
namespace {

// How long a client may take to send its line or to read the answer.
constexpr std::chrono::seconds kClientPatience{10};
constexpr std::chrono::seconds kStrangerPatience{1};
constexpr int kBacklog = 64;
constexpr mode_t kRootAndGroup = 0660;

void Check(bool ok, const std::string& what) {
  if (!ok) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

bool MayAsk(int fd) {
  const auto peer = ProcMgr::ReadSocketPeer(fd);
  return peer && (peer->uid == 0 || peer->uid == geteuid() ||
                  ProcMgr::IsSocketPeerInGroup(fd, *peer, getegid()));
}

ProcMgr::UniqueFd Listen(const std::string& path) {
  const ProcMgr::UnixAddress address(path);
  ProcMgr::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  Check(fd.IsOpen(), "socket");
  Check(unlink(path.c_str()) == 0 || errno == ENOENT, "remove the old " + path);
  // Nobody gets in between bind and chmod: there is no listen yet.
  Check(bind(fd.Get(), address.Get(), address.Size()) == 0, "bind " + path);
  Check(chmod(path.c_str(), kRootAndGroup) == 0, "chmod " + path);
  Check(listen(fd.Get(), kBacklog) == 0, "listen at " + path);
  return fd;
}

}  // namespace

LocalServer::LocalServer(const std::string& path, unsigned threads, Handler handler)
    : handler_(std::move(handler)), listener_(Listen(path)), stop_(eventfd(0, EFD_CLOEXEC)) {
  Check(stop_.IsOpen(), "eventfd");
  for (unsigned i = 0; i < threads; ++i) {
    threads_.emplace_back([this] { Work(); });
  }
}

LocalServer::~LocalServer() {
  const std::uint64_t one = 1;
  // An eventfd takes eight bytes unless its counter is full, and this is the only write.
  (void)!write(stop_.Get(), &one, sizeof(one));
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void LocalServer::Work() {
  std::array<pollfd, 2> fds{{{stop_.Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}}};
  while (true) {
    if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) {
      return;
    }
    if (fds[0].revents != 0) {
      return;
    }
    // All threads wake up for a client; those that come too late find nobody.
    const ProcMgr::UniqueFd client(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client.IsOpen()) {
      try {
        Serve(client.Get());
      } catch (const std::exception& e) {
        (void)std::fprintf(stderr, "local client: %s\n", e.what());
      }
    }
  }
}

void LocalServer::Serve(int fd) const {
  if (!MayAsk(fd)) {
    // Read and dropped: with the request left behind, the end of the connection would reach the
    // client before the answer does.
    const Deadline deadline = ProcMgr::SteadyNow() + kStrangerPatience;
    (void)LineReader(fd, kRequestLimit).Next(deadline);
    SendLine(fd, R"({"error":"only root and the service's own group may ask"})", deadline);
    return;
  }
  const std::string answer =
      handler_(LineReader(fd, kRequestLimit).Next(ProcMgr::SteadyNow() + kClientPatience));
  SendLine(fd, answer, ProcMgr::SteadyNow() + kClientPatience);
}

}  // namespace Local
