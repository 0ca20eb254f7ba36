// From packed items to frames.
#include <algorithm>

#include "core/log.h"
#include "message/serialization.h"
#include "platform/securec/securec.h"

namespace ProcMgr::Serialization {

bool ProcMgrCombinePiecesMsg(Message::RequestType type, std::vector<PackedItem>& packed,
                             PieceList& pieces) {
  if (packed.empty()) {
    LogError("CombinePiecesMsg failed: packedRequest is empty!!");
    return false;
  }
  // Short items first: what doesn't fit any window is then the tail, and the same list always gives
  // the same frames.
  std::sort(packed.begin(), packed.end());
  std::vector<std::uint32_t> windows;
  CalculateWindows(packed, windows);
  pieces.reserve(pieces.size() + windows.size());

  std::size_t next = 0;
  for (const std::uint32_t count : windows) {
    std::string items;
    items.reserve(kWindowLimit);
    for (std::uint32_t i = 0; i < count; ++i) {
      items += packed[next++].second;
    }
    ProcMgrCombineMsg(type, count, items, pieces);
  }
  return true;
}

void CalculateWindows(const std::vector<PackedItem>& packed, std::vector<std::uint32_t>& windows) {
  std::uint32_t sum = 0;
  std::uint32_t count = 0;
  for (const auto& [length, text] : packed) {
    if (length >= kWindowLimit) {
      LogWarning("ProcMgrAgent : packedRequest=%u bytes beyond the PM_PIPE_BUF_MAX!", length);
      break;
    }
    if (sum + length >= kWindowLimit) {
      windows.push_back(count);
      sum = 0;
      count = 0;
    }
    sum += length;
    ++count;
  }
  if (count != 0) {
    windows.push_back(count);
  }
}

void ProcMgrCombineMsg(Message::RequestType type, std::uint32_t count, const std::string& items,
                       PieceList& pieces) {
  const std::string body = std::to_string(count) + '#' + items;
  Message::RequestMsg& frame = pieces.emplace_back();  // Born with its data cleared.
  frame.type = type;
  frame.size = body.size();
  const int ret = memcpy_s(frame.data, sizeof(frame.data), body.data(), body.size());
  if (ret != 0) {
    LogError("ProcMgrCombineMsg failed memcpy_s failed: strSize=%lu bytes, ret=%d", body.size(),
             ret);
  }
}

}  // namespace ProcMgr::Serialization
