#include "base/child_msg_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "base/boot_trace.h"
#include "core/host_context.h"
#include "core/log.h"

namespace ProcMgr {

void CreateChildMsgPipe() {
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) {
    LogErrorRouted("PROCMGR: creat anonymous pipe failed, errno=%d", errno);
    return;
  }
  // A text for which there is no room is lost: no child may hang on it before its exec.
  (void)fcntl(ends[1], F_SETFL, O_WRONLY | O_NONBLOCK);
  HostContext& context = HostContext::Instance();
  context.childMsgReadFd_.Reset(ends[0]);
  context.childMsgWriteFd_.Reset(ends[1]);
  LogWarningRouted("%sPROCMGR: creat anonymous pipe success, read pipe fd=%d, write pipe fd=%d",
                   BootStrace(kBootTraceTag).c_str(), ends[0], ends[1]);
}

void CloseChildMsgPipe() {
  HostContext& context = HostContext::Instance();
  context.childMsgReadFd_.Reset();
  context.childMsgWriteFd_.Reset();
}

void WriteChildMsg(std::string_view appName, pid_t pid, std::string_view text) {
  const int fd = HostContext::Instance().childMsgWriteFd_.Get();
  if (fd < 0) {
    return;
  }
  std::string message = "app=";
  message.append(appName).append(",pid=").append(std::to_string(pid)).append(",").append(text);
  // One write keeps the texts of several children apart; its result has no reader.
  [[maybe_unused]] const ssize_t ignored = write(fd, message.data(), message.size());
}

void ReadChildMsg() {
  const int fd = HostContext::Instance().childMsgReadFd_.Get();
  if (fd < 0) {
    return;
  }
  std::array<char, 900> buffer{};
  const ssize_t size = read(fd, buffer.data(), buffer.size() - 1);
  if (size < 0) {
    LogWarning("PROCMGR: pm read anonymous pipe failed, errno=%d", errno);
  } else if (size > 0) {
    LogWarning("pm revice child process errinfo size=%d, err: %s", static_cast<int>(size),
               buffer.data());
  }
}

}  // namespace ProcMgr
