#include "message/upload_msg.h"

#include <utility>

#include "core/log.h"
#include "message/text_fields.h"
#include "platform/securec/securec.h"

namespace PmUpload {
namespace {

using ProcMgr::LogError;
using ProcMgr::LogInfo;
using ProcMgr::Serialization::FieldReader;
using ProcMgr::Serialization::FieldWriter;

// A response stays below the capacity of a request, although it travels without a frame.
constexpr std::size_t kResponseLimit = kUploadDataSize - 1;
// What a response may hold besides the names: two flags and two counts, with their ends.
constexpr std::size_t kResponseHead = 17;

// Reads `count` strings. The vector grows with the strings that are really there.
void ReadStrings(FieldReader& in, std::uint64_t count, std::vector<std::string>& values) {
  for (; count > 0 && !in.Failed(); --count) {
    (void)in.String(values.emplace_back());
  }
}

// Yields false for a field that is neither 0 nor 1.
bool ReadFlag(FieldReader& in, bool& value) {
  std::uint64_t number = 0;
  if (!in.Number(number) || number > 1) {
    return false;
  }
  value = number == 1;
  return true;
}

void WriteStrings(FieldWriter& out, const std::vector<std::string>& values) {
  out.Number(values.size());
  for (const std::string& value : values) {
    out.String(value);
  }
}

// Yields how many names from index `first` on fit a response.
std::uint64_t CountFitting(const std::vector<std::string>& groups, std::uint64_t first) {
  std::uint64_t count = 0;
  std::size_t total = 0;
  for (std::size_t i = first; i < groups.size(); ++i) {
    total += groups[i].size() + 1;
    if (total + kResponseHead > kResponseLimit) {
      break;
    }
    ++count;
  }
  return count;
}

bool BreaksOff(const UploadMsg& msg) {
  LogError("UnPackInfoRequest: request breaks off, size=%lu bytes", msg.size);
  return false;
}

}  // namespace

bool UnPackInfoRequest(const UploadMsg* msg, LoadAppInfo& info) {
  if (msg->size > kUploadDataSize) {
    return BreaksOff(*msg);
  }
  info = {};
  FieldReader in(std::string_view(msg->data, msg->size));
  std::uint64_t rwGroupsSize = 0;
  std::uint64_t allocGroupsSize = 0;
  (void)in.String(info.pidAppName);
  (void)in.String(info.binPath);
  (void)in.Number(info.pid);
  (void)in.Number(info.gid);
  (void)in.Number(rwGroupsSize);
  if (rwGroupsSize > kMaxGroups) {
    LogError("UnPackInfoRequest: rwGroupsSize=%lu is bigger than %lu", rwGroupsSize, kMaxGroups);
    return false;
  }
  ReadStrings(in, rwGroupsSize, info.rwGroups);
  (void)in.Number(allocGroupsSize);
  if (allocGroupsSize > kMaxGroups) {
    LogError("UnPackInfoRequest: allocGroupsSize=%lu is bigger than %lu", allocGroupsSize,
             kMaxGroups);
    return false;
  }
  ReadStrings(in, allocGroupsSize, info.allocGroups);
  if (!ReadFlag(in, info.alreadyReported) || !in.Number(info.receivedMemGroupsNum)) {
    return BreaksOff(*msg);
  }
  return true;
}

void PackResponseToPmupload(bool result, bool inWhiteList, const std::vector<std::string>& groups,
                            std::uint64_t received, std::string& out) {
  const std::uint64_t size = groups.size();
  if (size > kMaxGroups || size < received) {
    LogError("sharepool mem group size=%lu is invalid, should be at [%lu, %u]", size, received,
             static_cast<std::uint32_t>(kMaxGroups));
    return;
  }
  const std::uint64_t count = CountFitting(groups, received);
  FieldWriter text;
  text.Number(result ? 1 : 0);
  text.Number(inWhiteList ? 1 : 0);
  text.Number(count);
  for (std::uint64_t i = received; i < received + count; ++i) {
    text.String(groups[i]);
  }
  text.Number(size - received - count);
  out = text.Take();
  LogInfo(
      "PackResponseToPmupload size=%lu bytes, receivedMemGroupsNum=%lu, sentMemGroups=%lu, pack "
      "info=%s",
      out.size(), received, count, out.c_str());
}

bool PackInfoRequest(const LoadAppInfo& info, UploadMsg& msg) {
  if (info.rwGroups.size() > kMaxGroups || info.allocGroups.size() > kMaxGroups) {
    return false;
  }
  FieldWriter out;
  out.String(info.pidAppName);
  out.String(info.binPath);
  out.Number(info.pid);
  out.Number(info.gid);
  WriteStrings(out, info.rwGroups);
  WriteStrings(out, info.allocGroups);
  out.Number(info.alreadyReported ? 1 : 0);
  out.Number(info.receivedMemGroupsNum);
  const std::string text = out.Take();
  if (text.size() > kUploadDataSize) {
    return false;
  }
  msg = {};
  msg.size = text.size();
  return ProcMgr::memcpy_s(msg.data, sizeof(msg.data), text.data(), text.size()) == 0;
}

bool UnPackResponse(std::string_view text, UploadResponse& response) {
  FieldReader in(text);
  UploadResponse read;
  std::uint64_t count = 0;
  if (!ReadFlag(in, read.result) || !ReadFlag(in, read.inWhiteList) || !in.Number(count)) {
    return false;
  }
  ReadStrings(in, count, read.groups);
  if (!in.Number(read.stillToCome)) {
    return false;
  }
  response = std::move(read);
  return true;
}

}  // namespace PmUpload
