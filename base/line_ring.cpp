#include "base/line_ring.h"

#include <cstring>

namespace ProcMgr {

bool LineRing::Push(int level, std::uint64_t lostBefore, std::string_view text) {
  constexpr std::size_t kAlign = alignof(Header);
  const std::size_t bytes = (sizeof(Header) + text.size() + 1 + kAlign - 1) / kAlign * kAlign;
  const std::optional<std::size_t> place = FindRoom(bytes);
  if (!place.has_value()) {
    return false;
  }
  if (*place < tail_ && wrappedAt_ == 0) {
    wrappedAt_ = tail_;
  }
  const Header header{lostBefore, static_cast<std::uint32_t>(bytes), level};
  std::byte* const record = memory_.get() + *place;
  std::memcpy(record, &header, sizeof(header));
  std::memcpy(record + sizeof(header), text.data(), text.size());
  record[sizeof(header) + text.size()] = std::byte{0};
  tail_ = *place + bytes;
  ++lines_;
  return true;
}

std::optional<std::size_t> LineRing::FindRoom(std::size_t bytes) const {
  if (lines_ == kMaxLines) {
    return std::nullopt;
  }
  if (bytes <= (wrappedAt_ == 0 ? kBytes : head_) - tail_) {
    return tail_;
  }
  if (wrappedAt_ == 0 && bytes <= head_) {
    return 0;
  }
  return std::nullopt;
}

LineRing::Line LineRing::Front() const {
  const std::byte* const record = memory_.get() + head_;
  Header header{};
  std::memcpy(&header, record, sizeof(header));
  return {header.level, header.lostBefore, reinterpret_cast<const char*>(record + sizeof(header))};
}

void LineRing::Pop() {
  Header header{};
  std::memcpy(&header, memory_.get() + head_, sizeof(header));
  --lines_;
  head_ += header.bytes;
  if (lines_ == 0) {
    head_ = tail_ = wrappedAt_ = 0;
  } else if (head_ == wrappedAt_) {
    head_ = wrappedAt_ = 0;
  }
}

}  // namespace ProcMgr
