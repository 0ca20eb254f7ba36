// Frames and bodies as bytes.
#ifndef TESTS_UNIT_MESSAGE_FRAMES_H
#define TESTS_UNIT_MESSAGE_FRAMES_H

#include <cstring>
#include <string>
#include <string_view>

#include "message/request_msg.h"

namespace ProcMgr::Test {

// A frame with this body. What lies behind it is filled, so that a reader that goes too far reads
// something: a digit and a field's end by turns.
inline Message::RequestMsg Frame(Message::RequestType type, std::string_view body) {
  Message::RequestMsg frame;
  for (std::size_t i = 0; i < sizeof(frame.data); ++i) {
    frame.data[i] = i % 2 == 0 ? '1' : '#';
  }
  frame.type = type;
  frame.size = body.size();
  std::memcpy(frame.data, body.data(), body.size());
  return frame;
}

inline std::string Body(const Message::RequestMsg& frame) {
  return {frame.data, frame.size};
}

}  // namespace ProcMgr::Test

#endif  // TESTS_UNIT_MESSAGE_FRAMES_H
