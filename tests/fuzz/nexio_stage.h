// A messaging library for what is fuzzed: the target is the peers and calls in the library's place.
#ifndef TESTS_FUZZ_NEXIO_STAGE_H
#define TESTS_FUZZ_NEXIO_STAGE_H

#include <functional>
#include <set>
#include <string_view>

#include "message/nexio.h"

namespace PmTest {

struct NexioStage {
  static constexpr int kServer = 1 << 20;

  ProcMgr::NexioConnectCallback connect;
  ProcMgr::NexioRequestCallback request;
  std::set<int> open;  // The connections that what is fuzzed hasn't closed.

  // What becomes of an opening, of a frame (a response if `seq` isn't 0) and of a closing. Without,
  // there is nobody to open to or to hear, and what is open closes.
  std::function<int(const ProcMgr::NexioOpenParam& param)> onOpen;
  std::function<int(int fd, std::uint32_t seq, std::string_view frame)> onSend;
  std::function<int(int fd)> onClose;
};

NexioStage& Stage();

}  // namespace PmTest

#endif  // TESTS_FUZZ_NEXIO_STAGE_H
