// The request and the response of the upload service, for both ends of its connections.
// docs/frames.md shows the bytes.
#ifndef MESSAGE_UPLOAD_MSG_H
#define MESSAGE_UPLOAD_MSG_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace PmUpload {

// Capacity of a request's text, in bytes.
inline constexpr std::size_t kUploadDataSize = 3960;
// More groups in one list of a request, or in the manager's own list, are refused.
inline constexpr std::uint64_t kMaxGroups = 1024;

// A request as it travels: host byte order, always whole. A receiver must not trust `size` before
// it has compared it with kUploadDataSize.
struct UploadMsg {
  std::uint64_t size = 0;  // Valid bytes in `data`.
  char data[kUploadDataSize] = {};
};

static_assert(std::is_trivially_copyable_v<UploadMsg> && std::is_standard_layout_v<UploadMsg>);
static_assert(sizeof(UploadMsg) == 3968);
static_assert(offsetof(UploadMsg, size) == 0 && offsetof(UploadMsg, data) == 8);

// What a process says about itself.
struct LoadAppInfo {
  std::string binPath;
  std::string pidAppName;  // The name under which it wants to be known.
  std::vector<std::string> rwGroups;
  std::vector<std::string> allocGroups;
  int pid = 0;
  std::uint32_t gid = 0;
  bool alreadyReported = false;  // It only asks for further group names.
  std::uint64_t receivedMemGroupsNum = 0;
};

// What the manager answers.
struct UploadResponse {
  bool result = false;  // It took the process on.
  bool inWhiteList = false;
  std::vector<std::string> groups;
  std::uint64_t stillToCome = 0;
};

// Reads a request. Yields false, with an error line and `info` unspecified, if it breaks off, holds
// a number that can't be read or names more than kMaxGroups groups.
[[nodiscard]] bool UnPackInfoRequest(const UploadMsg* msg, LoadAppInfo& info);

// Writes the response to a peer that holds the first `received` of `groups` already, with as many
// of the further ones as fit, to `out`. Leaves `out` as it came, with an error line, if there are
// more than kMaxGroups groups or fewer than `received`. A name of 3942 bytes or more never fits.
void PackResponseToPmupload(bool result, bool inWhiteList, const std::vector<std::string>& groups,
                            std::uint64_t received, std::string& out);

// The peer's half. PackInfoRequest yields false, with `msg` as it came, for a request that doesn't
// fit; UnPackResponse yields false, with `response` as it came, for a text that breaks off, and so
// for the empty one that the manager sends when it can't answer.
[[nodiscard]] bool PackInfoRequest(const LoadAppInfo& info, UploadMsg& msg);
[[nodiscard]] bool UnPackResponse(std::string_view text, UploadResponse& response);

}  // namespace PmUpload

#endif  // MESSAGE_UPLOAD_MSG_H
