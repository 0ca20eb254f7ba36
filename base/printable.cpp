#include "base/printable.h"

namespace ProcMgr {

std::string Printable(std::string_view text, std::size_t limit) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : text.substr(0, limit)) {
    if (c >= ' ' && c <= '~') {
      out += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += "\\x";
    out += kHex[byte >> 4U];
    out += kHex[byte & 0xFU];
  }
  if (text.size() > limit) {
    out += "...";
  }
  return out;
}

std::string Quoted(std::string_view text) {
  return '"' + Printable(text) + '"';
}

}  // namespace ProcMgr
