#include "platform/manifest/utf8.h"

#include <cstdint>

namespace ProcMgr::Manifest {
namespace {

// The length of the well-formed character at the beginning of `text`, which isn't empty; 0 if there
// is none. Overlong forms, surrogates and what lies above U+10FFFF aren't well-formed.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  std::size_t length = 0;
  // The second byte's range is narrower behind some leads.
  std::uint8_t low = 0x80;
  std::uint8_t high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if ((lead & 0xF0U) == 0xE0) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  }
  if (length == 0 || text.size() < length || byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) {
      return 0;
    }
  }
  return length;
}

// As a byte, since a plain char has a sign on one machine and none on the next.
bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte < ' ' && c != '\t' && c != '\n' && c != '\r') || byte == 0x7F;
}

}  // namespace

std::optional<std::size_t> FindBadByte(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = IsControl(text[at]) ? 0 : CharacterLength(text.substr(at));
    if (length == 0) {
      return at;
    }
    at += length;
  }
  return std::nullopt;
}

}  // namespace ProcMgr::Manifest
