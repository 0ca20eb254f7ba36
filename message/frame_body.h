// The valid bytes of a received frame. Used by the codecs of this folder only.
#ifndef MESSAGE_FRAME_BODY_H
#define MESSAGE_FRAME_BODY_H

#include <optional>
#include <string_view>

#include "core/log.h"
#include "message/request_msg.h"

namespace ProcMgr::Serialization {

// None, with an error line, if the frame claims more bytes than it has.
[[nodiscard]] inline std::optional<std::string_view> BodyOf(const Message::RequestMsg& frame) {
  if (frame.size > Message::kFrameDataSize) {
    LogError("PROCMGR : frame refused: type=%u, size=%lu bytes > %zu",
             static_cast<std::uint32_t>(frame.type), frame.size, Message::kFrameDataSize);
    return std::nullopt;
  }
  return std::string_view(frame.data, frame.size);
}

}  // namespace ProcMgr::Serialization

#endif  // MESSAGE_FRAME_BODY_H
