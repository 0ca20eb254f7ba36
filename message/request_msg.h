// The frame that travels between the manager and its agents, the records that its bodies carry, and
// the words of their enumerations. docs/frames.md shows the bytes; message/serialization.h turns
// records into frames and back.
#ifndef MESSAGE_REQUEST_MSG_H
#define MESSAGE_REQUEST_MSG_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

namespace ProcMgr::Message {

// What a frame says, and how its body is written: 8 to 10 have binary bodies, the others text.
enum class RequestType : std::uint32_t {
  START_APP = 0,
  RESTART_APP = 1,
  TERM_APP = 2,
  BASESERVICE_STATE_REPORT = 3,
  APP_STATE_REPORT = 4,
  APP_EXECUTION_REPORT = 5,
  LOAD_STARTUP_CFG = 6,
  RELOAD_STARTUP_CFG = 7,
  HEART_MSG = 8,
  QUERY_APP_STATE = 9,
  APP_DETAIL_STATUS_REPORT = 10,
};

// Capacity of a frame's body, in bytes.
inline constexpr std::size_t kFrameDataSize = 3964;

// A frame as it travels: host byte order (both ends run on one machine), always whole. A receiver
// must not trust `size` before it has compared it with kFrameDataSize, nor `type` to be one of the
// enumerators. The reserved bytes are sent as 0 and read by nobody.
struct RequestMsg {
  RequestType type = RequestType::START_APP;
  std::uint32_t reserved = 0;
  std::uint64_t size = 0;  // Valid bytes in `data`.
  char data[kFrameDataSize] = {};
  char reservedEnd[4] = {};
};

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");
static_assert(std::is_trivially_copyable_v<RequestMsg> && std::is_standard_layout_v<RequestMsg>);
static_assert(sizeof(RequestMsg) == 3984);
static_assert(offsetof(RequestMsg, type) == 0 && sizeof(RequestMsg::type) == 4);
static_assert(offsetof(RequestMsg, size) == 8 && sizeof(RequestMsg::size) == 8);
static_assert(offsetof(RequestMsg, data) == 16 && sizeof(RequestMsg::data) == kFrameDataSize);

// Values for the open parts of an application: key 0 the path of its program, 1 the number of its
// device function, 2 environment entries KEY=VALUE.
using DynamicPara = std::map<int, std::vector<std::string>>;

struct StartAppInfo {
  std::string appName;
  std::vector<std::string> argv;
  DynamicPara dynamicPara;
};

struct RestartAppInfo {
  std::string appName;
  std::vector<std::string> argv;
  DynamicPara dynamicPara;
};

struct TermAppInfo {
  std::string appName;
};

// What a base service says about itself.
struct BaseServiceStateInfo {
  // 0: up, and 1: asks to hear of every application; both count only from "iammgr". 2: ready.
  // 3: going down.
  std::uint32_t state = 0;
};

struct AppStateInfo {
  std::string appName;
  std::int32_t pid = 0;
  std::uint32_t gid = 0;
  std::uint32_t state = 0;    // The number of a ReportAppStateType (base/app_state.h).
  std::uint32_t eioFlag = 0;  // 1: the process ended because its program couldn't be read.
};

struct AppExecInfo {
  std::string appName;
  std::int32_t pid = 0;
  std::uint32_t gid = 0;
  std::uint32_t state = 0;  // 0: running; anything else: ended.
};

struct StartupCfgInfo {
  std::map<std::string, std::string> matchData;  // Selects among the file's applications.
  std::string path;
};

struct HeartMsg {
  std::uint64_t index = 0;       // Counts the heart messages of one agent, from 1.
  std::uint64_t sendTimeMs = 0;  // The sender's steady clock.
};

// The words of the enumerations, for log lines and operators. A number past the last row gives the
// empty text.
[[nodiscard]] inline std::string GetBaseServiceStateTypeStr(std::uint64_t index) {
  static constexpr const char* kWords[] = {"INIT", "RUNNING", "TERMINATING"};
  return index < std::size(kWords) ? kWords[index] : "";
}

[[nodiscard]] inline std::string GetAppExecStateStr(std::uint64_t index) {
  static constexpr const char* kWords[] = {"RUNNING", "TERMINATED"};
  return index < std::size(kWords) ? kWords[index] : "";
}

// The daemon calls none of the three below: they are for agents that show requests and outcomes to
// people. The order of GetOptionType isn't that of RequestType.
[[nodiscard]] inline std::string GetOptionType(std::uint64_t index) {
  static constexpr const char* kWords[] = {"START", "TERM", "RESTART"};
  return index < std::size(kWords) ? kWords[index] : "";
}

[[nodiscard]] inline std::string GetGroupOwner(std::uint64_t index) {
  static constexpr const char* kWords[] = {"VENTRIX", "IAM", "APPMGR"};
  return index < std::size(kWords) ? kWords[index] : "";
}

[[nodiscard]] inline std::string GetAppState(std::uint64_t index) {
  static constexpr const char* kWords[] = {
      "SUCCESS", "TERM_FAILED", "START_FAILED",       "RESTART_FAILED",
      "INIT",    "PROCESSING",  "START_FAILED_BY_EIO"};
  return index < std::size(kWords) ? kWords[index] : "";
}

}  // namespace ProcMgr::Message

#endif  // MESSAGE_REQUEST_MSG_H
