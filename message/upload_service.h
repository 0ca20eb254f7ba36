// The server through which a process that the manager did not start reports itself.
//
// The exchange is strictly one request, one response. A bad request gets a log line and silence.
// The server is created once and never closed; its callbacks run on threads of the messaging
// library, concurrently for different peers, and take no lock of their own.
#ifndef MESSAGE_UPLOAD_SERVICE_H
#define MESSAGE_UPLOAD_SERVICE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "message/nexio.h"
#include "message/upload_msg.h"

namespace PmUpload {

// What the service asks the manager. All three are called on threads of the messaging library.
struct UploadCallBacks {
  // Takes the process on or refuses it; `fd` is the peer's connection.
  std::function<bool(const LoadAppInfo& info, int fd)> onUploadApp;
  // The names of all share pool groups, in their order.
  std::function<std::vector<std::string>()> groupNames;
  // Whether the binary at this path stands in the white list.
  std::function<bool(const std::string& binPath)> inWhiteList;
};

// Creates the server, with `callBacks` in place before the first request can come. To be called
// once; all three functions must be given. Yields false if the library refuses.
[[nodiscard]] bool RegXCallBack(UploadCallBacks callBacks);

// The functions that the library calls.
void servercallback(int fd, const char* clientName, std::uint32_t nameLen);
void PmHandleRequest(int fd, const ProcMgr::NexioRequest* req);

// Closes a peer's connection. Never waits; the keeper goes on trying for 5 seconds while a callback
// of it runs.
void CloseNexioFd(int fd);

}  // namespace PmUpload

#endif  // MESSAGE_UPLOAD_SERVICE_H
