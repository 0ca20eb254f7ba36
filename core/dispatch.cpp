// The way of a frame from its channel to the operation that acts on it. Runs on the messaging
// library's threads, beside itself on other channels.
#include <cstring>
#include <exception>

#include "base/shortage.h"
#include "core/log.h"
#include "core/process_manager.h"
#include "message/serialization.h"

namespace ProcMgr {

using Message::RequestMsg;
using Message::RequestType;

namespace {

bool IsStateReport(const NexioRequest* request) {
  if (request == nullptr || request->data == nullptr || request->size != sizeof(RequestMsg)) {
    return false;
  }
  RequestType type{};
  std::memcpy(&type, request->data, sizeof(type));
  return type == RequestType::BASESERVICE_STATE_REPORT;
}

}  // namespace

void ProcessManager::RequstMsgHandler(int fd, const NexioRequest* request) {
  try {
    if (IsStateReport(request)) {
      // It comes once, and the boot may wait for it. Taken twice, it says nothing else.
      ThroughMemoryShortage([&] { HandleRequest(fd, request); });
    } else {
      HandleRequest(fd, request);
    }
  } catch (const std::exception& error) {
    LogError("PROCMGR: Caught exception=%s", error.what());
  }
}

void ProcessManager::HandleRequest(int fd, const NexioRequest* request) {
  std::string sender;
  if (!master_.GetProcNameFromFd(fd, sender)) {
    LogError("PROCMGR : RequstMsgHandler failed:: GetProcNameFromFd failed, fd=%d", fd);
    return;
  }
  if (request == nullptr) {
    LogError("PROCMGR : fd=%d, owner=%s exit", fd, sender.c_str());
    return;
  }
  if (request->size != sizeof(RequestMsg)) {
    LogError(
        "PROCMGR : RequstMsgHandler size=%u bytes is not illegal ,sturct of message size=%lu bytes",
        request->size, sizeof(RequestMsg));
    return;
  }
  if (request->data == nullptr) {
    LogError("PROCMGR : RequstMsgHandler failed: request is null point");
    return;
  }
  // The library's buffer promises no alignment.
  RequestMsg frame;
  std::memcpy(&frame, request->data, sizeof(frame));
  heartMessages_.CheckHeartMsg(sender, frame);
  DispatchRequest(frame.type, frame, sender, *request, fd);
}

namespace {

// What services say about themselves is heard to the end; requests end with the request to stop.
bool IsReport(RequestType type) {
  return type == RequestType::BASESERVICE_STATE_REPORT ||
         type == RequestType::APP_EXECUTION_REPORT || type == RequestType::HEART_MSG;
}

}  // namespace

void ProcessManager::DispatchRequest(RequestType type, const RequestMsg& frame,
                                     const std::string& sender, const NexioRequest& request,
                                     int fd) {
  if (stop_.IsAsked() && !IsReport(type)) {
    LogWarning("PROCMGR : orderly stop: request type=%u from %s is not taken",
               static_cast<unsigned>(type), sender.c_str());
    return;
  }
  switch (type) {
    case RequestType::START_APP: {
      std::vector<Message::StartAppInfo> list;
      Serialization::ProcMgrUnpackStartRequest(&frame, list, sender);
      StartApp(list, sender);
      break;
    }
    case RequestType::RESTART_APP: {
      std::vector<Message::RestartAppInfo> list;
      Serialization::ProcMgrUnpackRestartRequest(&frame, list, sender);
      RestartApp(list, sender);
      break;
    }
    case RequestType::TERM_APP: {
      std::vector<Message::TermAppInfo> list;
      Serialization::ProcMgrUnpackTermRequest(&frame, list);
      TermGeneralApp(list, sender);
      break;
    }
    case RequestType::BASESERVICE_STATE_REPORT: {
      Message::BaseServiceStateInfo info;
      if (Serialization::ProcMgrUnpackedBaseServiceStateRequest(&frame, info)) {
        UpdateBaseAppState(sender, info.state, fd);
      }
      break;
    }
    case RequestType::APP_EXECUTION_REPORT: {
      Message::AppExecInfo info;
      if (Serialization::ProcMgrUnpackedAppExecInfoRequest(&frame, info)) {
        HandleAppExecReport(info);
      }
      break;
    }
    case RequestType::LOAD_STARTUP_CFG:
      HandleLoadRequest(frame, sender, request, fd);
      break;
    case RequestType::RELOAD_STARTUP_CFG:
      HandleReloadRequest(frame, sender, request, fd);
      break;
    case RequestType::QUERY_APP_STATE: {
      std::vector<std::string> names;
      Serialization::ProcMgrUnpackQueryAppState(&frame, names);
      QueryAppState(names, sender);
      break;
    }
    default:
      break;
  }
}

}  // namespace ProcMgr
