#include "agent/process_manager_agent.h"

namespace ProcMgr {

const char* ToText(Result result) noexcept {
  switch (result) {
    case Result::kOk:
      return "success";
    case Result::kInvalidName:
      return "not a service's name (PROC_NAME in the service file's envArgv: 1 to 64 of A-Z a-z "
             "0-9 . _ -)";
    case Result::kNameTaken:
      return "another process serves the name";
    case Result::kInvalidArgument:
      return "invalid argument (something empty, a '#' or zero byte in a text, or an unknown key)";
    case Result::kTooLarge:
      return "too large for a frame";
    case Result::kNoChannel:
      return "the manager has opened no channel";
    case Result::kDisconnected:
      return "the channel to the manager broke";
    case Result::kBusy:
      return "the queue of the other side is full";
    case Result::kTimeout:
      return "no answer in time";
    case Result::kLoadFailed:
      return "the manager could not load the start-up configuration";
    case Result::kBadAnswer:
      return "the manager's answer makes no sense";
    case Result::kInCallback:
      return "waits for an answer, which can't come while a callback runs";
    case Result::kStopped:
      return "the agent has been stopped";
    case Result::kNoReceiver:
      return "nobody receives heartbeats";
    case Result::kOutOfMemory:
      return "out of memory";
    case Result::kSystemError:
      return "system error, see the log";
  }
  return "unknown result";
}

}  // namespace ProcMgr
