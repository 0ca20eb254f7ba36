// A pattern up to the first line break, and behind it a value.
#include <algorithm>
#include <string>

#include "app/manifest.h"
#include "platform/manifest/pattern.h"
#include "tests/fuzz/fuzz_input.h"

using PmTest::FuzzText;
using PmTest::Require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = FuzzText(data, size);
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string pattern(text.substr(0, end));
  const std::string value(text.substr(std::min(end + 1, text.size())));
  const ProcMgr::ParseAndDepend& library = ProcMgr::ParseAndDepend::Instance();

  // The pieces, put together, are the pattern.
  std::string whole;
  for (const ProcMgr::Manifest::PatternPiece& piece : ProcMgr::Manifest::SplitPattern(pattern)) {
    Require(piece.isExpression || !piece.text.empty());
    whole.append(piece.isExpression ? "${" : "").append(piece.text);
    whole.append(piece.isExpression ? "}" : "");
  }
  Require(whole == pattern);

  const bool fits = library.IsDynamicParaMatch(pattern, value);
  Require(fits == library.IsDynamicParaMatch(pattern, value));
  if (!library.IsDynamicPara(pattern)) {
    Require(fits == (pattern == value));
    Require(library.IsDynamicParaMatch(pattern, pattern));
  }
  if (ProcMgr::Manifest::FindBrokenExpression(pattern)) {
    Require(!fits);
  }
  return 0;
}
