// The manager's side of the heartbeat: one datagram at a time.
#ifndef TESTS_UNIT_AGENT_BEAT_RECEIVER_H
#define TESTS_UNIT_AGENT_BEAT_RECEIVER_H

#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "base/unique_fd.h"
#include "base/unix_address.h"
#include "sandbox/sandbox.h"
#include "sandbox/system_error.h"
#include "sandbox/wait.h"

namespace PmTest {

using namespace PmSandbox;  // The stage on which the tests play.

class BeatReceiver {
 public:
  explicit BeatReceiver(const Sandbox& sandbox)
      : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const std::string path = sandbox.Outside("/run/heartbeat.sock");
    std::filesystem::remove(path);
    const ProcMgr::UnixAddress address(path);
    CheckStep(bind(fd_.Get(), address.Get(), address.Size()) == 0, "listen for beats");
  }

  // The name in the next beat; "none" if none comes.
  [[nodiscard]] std::string Receive(std::chrono::milliseconds patience = kPatience) const {
    char text[128];
    ssize_t size = -1;
    const bool came = Eventually(
        [&] { return (size = recv(fd_.Get(), text, sizeof(text), MSG_DONTWAIT)) >= 0; }, patience);
    return came ? std::string(text, static_cast<std::size_t>(size)) : "none";
  }

 private:
  ProcMgr::UniqueFd fd_;
};

}  // namespace PmTest

#endif  // TESTS_UNIT_AGENT_BEAT_RECEIVER_H
