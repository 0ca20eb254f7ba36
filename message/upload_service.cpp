#include "message/upload_service.h"

#include <cstring>
#include <utility>

#include "core/log.h"
#include "message/keeper.h"

namespace PmUpload {
namespace {

using ProcMgr::LogError;
using ProcMgr::LogInfo;
using ProcMgr::LogWarning;

constexpr int kCloseTries = 50;

// Written before the server exists and only read from then on, so it needs no lock.
UploadCallBacks& CallBackSlot() {
  static UploadCallBacks slot;
  return slot;
}

// Copies the frame out of the library's buffer, whose alignment nobody promises. Yields false, with
// an error line, for a request that is no frame.
bool ReadFrame(const ProcMgr::NexioRequest& req, UploadMsg& msg) {
  if (req.data == nullptr || req.size != sizeof(msg)) {
    LogError("PmHandleRequest: req size=%u bytes, req msg size=%lu bytes", req.size, sizeof(msg));
    return false;
  }
  std::memcpy(&msg, req.data, sizeof(msg));
  if (msg.size > kUploadDataSize) {
    LogError("PmHandleRequest failed: request size=%lu bytes > %lu", msg.size, kUploadDataSize);
    return false;
  }
  return true;
}

}  // namespace

bool RegXCallBack(UploadCallBacks callBacks) {
  CallBackSlot() = std::move(callBacks);
  ProcMgr::NexioServerParam param;
  param.connectCallback = &servercallback;
  param.requestCallback = &PmHandleRequest;
  return ProcMgr::NexioCreateServer(param) >= 0;
}

void servercallback(int fd, const char* clientName, std::uint32_t nameLen) {
  LogInfo("servercallback fd=%d, clientName=%s, nameLen=%d", fd, clientName,
          static_cast<int>(nameLen));
  if (fd < 0) {
    LogError("servercallbak fd=%d is invaild.", fd);
  }
}

void PmHandleRequest(int fd, const ProcMgr::NexioRequest* req) {
  if (req == nullptr) {
    LogWarning("PmHandleRequest: req is nullptr, connection is broken, fd=%d exits", fd);
    CloseNexioFd(fd);
    return;
  }
  UploadMsg msg;
  LoadAppInfo info;
  if (!ReadFrame(*req, msg) || !UnPackInfoRequest(&msg, info)) {
    return;
  }
  LogInfo("PmHandleRequest receive pid=%d, pidAppName=%s, binPath=%s", info.pid,
          info.pidAppName.c_str(), info.binPath.c_str());
  const UploadCallBacks& manager = CallBackSlot();
  const bool result = manager.onUploadApp(info, fd);
  const bool inWhiteList = manager.inWhiteList(info.binPath);
  std::string text;
  PackResponseToPmupload(result, inWhiteList, manager.groupNames(), info.receivedMemGroupsNum,
                         text);
  // A peer that has gone in the meantime has no use for the answer.
  (void)ProcMgr::RespondInOrder(fd, req->seq, text, [](int) {});
}

void CloseNexioFd(int fd) {
  LogInfo("CloseNexioFd begin. fd=%d", fd);
  if (fd < 0) {
    return;
  }
  const auto attempt = [fd] { return ProcMgr::NexioClosePipe(fd); };
  ProcMgr::CloseInTime({attempt, kCloseTries, [fd](int ret) {
                          if (ret < 0) {
                            LogError("CloseNexioFd: NexioClosePipe failed err=%d", ret);
                            return;
                          }
                          LogInfo("CloseNexioFd NexioClosePipe success. fd=%d", fd);
                        }});
}

}  // namespace PmUpload
