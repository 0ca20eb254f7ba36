#include "platform/manifest/nesting.h"

namespace ProcMgr::Manifest {
namespace {

constexpr std::size_t kMaxOpenBrackets = 1024;
constexpr std::size_t kMaxIndicators = 64;

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// Whether a block begins at `at`: an indicator with a blank or the end of the line behind it.
bool IsIndicator(std::string_view text, std::size_t at) {
  const std::size_t next = at + 1;
  return (text[at] == '-' || text[at] == '?' || text[at] == ':') &&
         (next == text.size() || IsBlank(text[next]) || text[next] == '\n' || text[next] == '\r');
}

}  // namespace

std::optional<std::size_t> FindDeepNesting(std::string_view text) {
  std::size_t openBrackets = 0;
  std::size_t indicators = 0;
  bool isLineBeginning = true;  // Nothing but blanks and indicators so far.
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '\n') {
      isLineBeginning = true;
      indicators = 0;
    } else if (isLineBeginning && IsIndicator(text, at)) {
      ++indicators;
    } else if (!IsBlank(c)) {
      isLineBeginning = false;
    }
    if (c == '{' || c == '[') {
      ++openBrackets;
    } else if ((c == '}' || c == ']') && openBrackets != 0) {
      --openBrackets;
    }
    if (openBrackets > kMaxOpenBrackets || indicators > kMaxIndicators) {
      return at;
    }
  }
  return std::nullopt;
}

}  // namespace ProcMgr::Manifest
