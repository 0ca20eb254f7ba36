#include "message/nexio_wrappers.h"

#include "base/sleep.h"

namespace ProcMgr {
namespace {

constexpr int kSendTries = 401;
constexpr std::int64_t kSendPauseNs = 5'000'000;
constexpr int kCloseTries = 10;
constexpr std::int64_t kClosePauseNs = 100'000'000;

// Makes `call` up to `tries` times while it yields `busy`.
template <typename Call>
int Repeat(int busy, int tries, std::int64_t pauseNs, const Call& call) {
  int result = call();
  for (int done = 1; result == busy && done < tries; ++done) {
    SleepNs(pauseNs);
    result = call();
  }
  return result;
}

}  // namespace

int ProcMgrNexioSendRequest(int fd, const NexioRequest& request) {
  return Repeat(kNexioBusy, kSendTries, kSendPauseNs,
                [&] { return NexioSendRequest(fd, request); });
}

int ProcMgrNexioSendResponse(int fd, const NexioResponse& response) {
  return Repeat(kNexioBusy, kSendTries, kSendPauseNs,
                [&] { return NexioSendResponse(fd, response); });
}

int ProcMgrNexioRPCSync(int fd, const NexioRequest& request, NexioResponse& response) {
  return Repeat(kNexioBusy, kSendTries, kSendPauseNs,
                [&] { return NexioRPCSync(fd, request, response); });
}

int ProcMgrNexioTimedRPCSync(int fd, const NexioRequest& request, NexioResponse& response,
                             std::uint32_t timeoutMs) {
  return Repeat(kNexioBusy, kSendTries, kSendPauseNs,
                [&] { return NexioTimedRPCSync(fd, request, response, timeoutMs); });
}

void ProcMgrNexioClosePipe(int fd) {
  // A descriptor that is gone already is as good as one that closes now.
  (void)Repeat(kNexioCallback, kCloseTries, kClosePauseNs, [fd] { return NexioClosePipe(fd); });
}

}  // namespace ProcMgr
