#include "base/child_msg_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdint>
#include <string>

#include "base/boot_trace.h"
#include "base/fixed_text.h"
#include "base/may_wait.h"
#include "base/raw_calls.h"
#include "base/shared_page.h"
#include "base/unique_fd.h"
#include "core/host_context.h"
#include "core/log.h"

namespace ProcMgr {
namespace {

// Two texts of each of a thousand children that fail at once fit in.
constexpr int kPipeBytes = 1 << 20;

// The manager's own way to the pipe. The ends that children inherit are one open file with the
// manager's: a child can clear O_NONBLOCK there, and the next child would hang before its exec, or
// set it, and the reader would spin. These are opened anew, and no program ever gets them.
struct OwnEnds {
  UniqueFd read;
  UniqueFd write;
  // In a page that children share with the manager, since they count; null if there was none.
  std::atomic<std::uint64_t>* lost = nullptr;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "its page is shared by processes");

OwnEnds ownEnds;
std::atomic<std::uint64_t>* const lostTexts = MakeShared<std::atomic<std::uint64_t>>();

UniqueFd Reopen(int fd, int flags) {
  return UniqueFd(open(("/proc/self/fd/" + std::to_string(fd)).c_str(), flags | O_CLOEXEC));
}

// Without /proc there are only the inherited ends.
int OwnOr(const UniqueFd& own, const UniqueFd& inherited) {
  return own.IsOpen() ? own.Get() : inherited.Get();
}

}  // namespace

void CreateChildMsgPipe() {
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) {
    LogErrorRouted("PROCMGR: creat anonymous pipe failed, errno=%d", errno);
    return;
  }
  // A smaller pipe, where the system grants no more, only loses texts sooner.
  (void)fcntl(ends[1], F_SETPIPE_SZ, kPipeBytes);
  // A text for which there is no room is lost: no child may hang on it before its exec.
  (void)fcntl(ends[1], F_SETFL, O_WRONLY | O_NONBLOCK);
  HostContext& context = HostContext::Instance();
  context.childMsgReadFd_.Reset(ends[0]);
  context.childMsgWriteFd_.Reset(ends[1]);
  ownEnds = {Reopen(ends[0], O_RDONLY), Reopen(ends[1], O_WRONLY | O_NONBLOCK), lostTexts};
  LogWarningRouted("%sPROCMGR: creat anonymous pipe success, read pipe fd=%d, write pipe fd=%d",
                   BootStrace(kBootTraceTag).c_str(), ends[0], ends[1]);
}

void CloseChildMsgPipe() {
  HostContext& context = HostContext::Instance();
  context.childMsgReadFd_.Reset();
  context.childMsgWriteFd_.Reset();
  ownEnds = {};
}

void WriteChildMsg(std::string_view appName, pid_t pid, std::string_view text) {
  const int fd = OwnOr(ownEnds.write, HostContext::Instance().childMsgWriteFd_);
  if (fd < 0) {
    return;
  }
  FixedText<PIPE_BUF> message;
  message.Add("app=").Add(appName).Add(",pid=").AddNumber(pid).Add(",").Add(text);
  // One write keeps the texts of several children apart.
  const std::string_view bytes = message.View();
  const long written = RawCall(SYS_write, fd, bytes.data(), bytes.size());
  if (written != static_cast<long>(bytes.size()) && ownEnds.lost != nullptr) {
    ownEnds.lost->fetch_add(1);
  }
}

void ReadChildMsg() {
  const int fd = OwnOr(ownEnds.read, HostContext::Instance().childMsgReadFd_);
  if (fd < 0) {
    return;
  }
  std::array<char, 900> buffer{};
  MayWait("ReadChildMsg");
  const ssize_t size = read(fd, buffer.data(), buffer.size() - 1);
  if (size < 0) {
    LogWarning("PROCMGR: pm read anonymous pipe failed, errno=%d", errno);
  } else if (size > 0) {
    LogWarning("pm revice child process errinfo size=%d, err: %s", static_cast<int>(size),
               buffer.data());
  }
  const std::uint64_t lost = ownEnds.lost == nullptr ? 0 : ownEnds.lost->exchange(0);
  if (lost > 0) {
    LogWarning("PROCMGR: anonymous pipe was full, lost child messages=%" PRIu64, lost);
  }
}

}  // namespace ProcMgr
