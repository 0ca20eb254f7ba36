// The binary bodies: little-endian integers and raw bytes.
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

#include "core/log.h"
#include "message/frame_body.h"
#include "message/serialization.h"
#include "platform/securec/securec.h"

namespace ProcMgr::Serialization {
namespace {

// Writes from the start of a span on; stops for good at the first write that doesn't fit.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<char> out) : out_(out) {}

  bool Bytes(const void* data, std::size_t size) {
    if (size == 0) {
      return true;
    }
    if (size > out_.size() - used_ ||
        memcpy_s(out_.data() + used_, out_.size() - used_, data, size) != 0) {
      return false;
    }
    used_ += size;
    return true;
  }

  template <typename Integer>
  bool Number(Integer value) {
    static_assert(std::is_integral_v<Integer>);
    return Bytes(&value, sizeof(value));
  }

  bool String(std::string_view value) {
    return value.size() <= out_.size() && Number(static_cast<std::uint32_t>(value.size())) &&
           Bytes(value.data(), value.size());
  }

  [[nodiscard]] std::size_t Used() const { return used_; }

 private:
  std::span<char> out_;
  std::size_t used_ = 0;
};

// Reads what a ByteWriter wrote; yields false, with its target as it was, past the end.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : rest_(bytes) {}

  template <typename Integer>
  bool Number(Integer& value) {
    static_assert(std::is_integral_v<Integer>);
    if (rest_.size() < sizeof(value)) {
      return false;
    }
    std::memcpy(&value, rest_.data(), sizeof(value));
    rest_.remove_prefix(sizeof(value));
    return true;
  }

  bool String(std::string& value) {
    std::uint32_t length = 0;
    if (!Number(length) || rest_.size() < length) {
      return false;
    }
    value = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return true;
  }

  [[nodiscard]] std::size_t Left() const { return rest_.size(); }

 private:
  std::string_view rest_;
};

std::span<char> DataOf(Message::RequestMsg& frame) {
  return {frame.data, sizeof(frame.data)};
}

bool ReadNames(std::string_view body, std::vector<std::string>& names) {
  ByteReader in(body);
  std::uint32_t count = 0;
  if (!in.Number(count) || count > in.Left()) {
    return false;
  }
  for (; count > 0; --count) {
    if (!in.String(names.emplace_back())) {
      return false;
    }
  }
  return true;
}

bool ReadStatus(std::string_view body, std::map<std::string, int>& status) {
  ByteReader in(body);
  std::uint32_t count = 0;
  if (!in.Number(count)) {
    return false;
  }
  for (; count > 0; --count) {
    std::string name;
    std::int32_t value = 0;
    if (!in.String(name) || !in.Number(value)) {
      return false;
    }
    status[name] = value;
  }
  return true;
}

}  // namespace

void ProcMgrPackHeartMsg(const Message::HeartMsg& info, Message::RequestMsg& frame) {
  ByteWriter out(DataOf(frame));
  // Both fit.
  (void)out.Number(info.index);
  (void)out.Number(info.sendTimeMs);
  frame.type = Message::RequestType::HEART_MSG;
  frame.size = out.Used();
}

// The body has a fixed form, so `size` isn't looked at.
void ProcMgrUnpackHeartMsg(const Message::RequestMsg* frame, Message::HeartMsg& info) {
  ByteReader in(std::string_view(frame->data, sizeof(frame->data)));
  (void)in.Number(info.index);
  (void)in.Number(info.sendTimeMs);
}

bool ProcMgrPackQueryAppState(const std::vector<std::string>& names, Message::RequestMsg& frame) {
  ByteWriter out(DataOf(frame));
  bool fits = out.Number(static_cast<std::uint32_t>(names.size()));
  for (const std::string& name : names) {
    fits = fits && out.String(name);
  }
  frame.type = Message::RequestType::QUERY_APP_STATE;
  frame.size = out.Used();
  return fits;
}

void ProcMgrUnpackQueryAppState(const Message::RequestMsg* frame, std::vector<std::string>& names) {
  names.clear();
  const std::optional<std::string_view> body = BodyOf(*frame);
  if (!body.has_value() || !ReadNames(*body, names)) {
    LogError("PROCMGR: DeserializeMessage QUERY_APP_STATE fail.");
    names.clear();
  }
}

bool ProcMgrPackAppDetailStatus(const std::map<std::string, int>& status,
                                Message::RequestMsg& frame) {
  ByteWriter out(DataOf(frame));
  bool fits = out.Number(static_cast<std::uint32_t>(status.size()));
  for (const auto& [name, value] : status) {
    fits = fits && out.String(name) && out.Number(std::int32_t{value});
  }
  frame.type = Message::RequestType::APP_DETAIL_STATUS_REPORT;
  frame.size = out.Used();
  return fits;
}

bool ProcMgrUnpackAppDetailStatus(const Message::RequestMsg* frame,
                                  std::map<std::string, int>& status) {
  const std::optional<std::string_view> body = BodyOf(*frame);
  std::map<std::string, int> read;
  if (!body.has_value() || !ReadStatus(*body, read)) {
    return false;
  }
  status = std::move(read);
  return true;
}

}  // namespace ProcMgr::Serialization
