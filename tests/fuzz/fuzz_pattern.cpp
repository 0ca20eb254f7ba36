// A pattern up to the first line break, and behind it a value.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "app/manifest.h"
#include "platform/manifest/pattern.h"

namespace {

void Check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string pattern(text.substr(0, end));
  const std::string value(text.substr(std::min(end + 1, text.size())));
  const ProcMgr::ParseAndDepend& library = ProcMgr::ParseAndDepend::Instance();

  // The pieces, put together, are the pattern.
  std::string whole;
  for (const ProcMgr::Manifest::PatternPiece& piece : ProcMgr::Manifest::SplitPattern(pattern)) {
    Check(piece.isExpression || !piece.text.empty());
    whole.append(piece.isExpression ? "${" : "").append(piece.text);
    whole.append(piece.isExpression ? "}" : "");
  }
  Check(whole == pattern);

  const bool fits = library.IsDynamicParaMatch(pattern, value);
  Check(fits == library.IsDynamicParaMatch(pattern, value));
  if (!library.IsDynamicPara(pattern)) {
    Check(fits == (pattern == value));
    Check(library.IsDynamicParaMatch(pattern, pattern));
  }
  if (ProcMgr::Manifest::FindBrokenExpression(pattern)) {
    Check(!fits);
  }
  return 0;
}
