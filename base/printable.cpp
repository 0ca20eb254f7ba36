#include "base/printable.h"

#include <algorithm>
#include <array>

namespace ProcMgr {
namespace {

constexpr std::size_t kEscapeBytes = 4;

bool IsPrintable(char c) {
  return c >= ' ' && c <= '~';
}

std::array<char, kEscapeBytes> Escape(char c) {
  constexpr std::string_view kHex = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  return {'\\', 'x', kHex[byte >> 4U], kHex[byte & 0xFU]};
}

struct Fit {
  std::size_t bytes = 0;  // Of the text.
  std::size_t shown = 0;  // What they take when they are shown.
};

// The longest beginning of `text` that can be shown in `room`.
Fit FitInto(std::size_t room, std::span<const char> text) {
  Fit fit;
  for (const char c : text) {
    const std::size_t more = IsPrintable(c) ? 1 : kEscapeBytes;
    if (fit.shown + more > room) {
      break;
    }
    ++fit.bytes;
    fit.shown += more;
  }
  return fit;
}

}  // namespace

std::size_t MakePrintable(std::span<char> buffer, std::size_t size) {
  Fit fit = FitInto(buffer.size(), buffer.first(size));
  const bool isCut = fit.bytes < size;
  if (isCut) {
    fit = FitInto(buffer.size() - kCutOff.size(), buffer.first(size));
  }
  // From the end on, so that nothing is overwritten before it has been read. Where the two meet,
  // the rest stands as it is to stand.
  std::size_t to = fit.shown;
  for (std::size_t from = fit.bytes; from < to;) {
    const char c = buffer[--from];
    if (IsPrintable(c)) {
      buffer[--to] = c;
    } else {
      const auto escape = Escape(c);
      to -= escape.size();
      std::copy(escape.begin(), escape.end(), &buffer[to]);
    }
  }
  if (isCut) {
    std::copy(kCutOff.begin(), kCutOff.end(), &buffer[fit.shown]);
    fit.shown += kCutOff.size();
  }
  return fit.shown;
}

std::string Printable(std::string_view text, std::size_t limit) {
  std::string out;
  for (const char c : text.substr(0, limit)) {
    if (IsPrintable(c)) {
      out += c;
    } else {
      const auto escape = Escape(c);
      out.append(escape.data(), escape.size());
    }
  }
  if (text.size() > limit) {
    out += kCutOff;
  }
  return out;
}

std::string Quoted(std::string_view text) {
  return '"' + Printable(text) + '"';
}

}  // namespace ProcMgr
