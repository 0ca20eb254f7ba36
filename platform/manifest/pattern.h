// Patterns: texts with regular expressions in "${...}".
#ifndef PLATFORM_MANIFEST_PATTERN_H
#define PLATFORM_MANIFEST_PATTERN_H

#include <cstddef>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"

namespace re2 {
class RE2;
}

namespace ProcMgr::Manifest {

// A piece of a pattern: literal text, or the expression of a "${...}" without its brackets.
struct PatternPiece {
  bool isExpression = false;
  std::string_view text;
};

// Cuts `pattern` into its pieces. An expression ends at the "}" that matches its "${": braces nest,
// and a backslash takes the meaning from a brace behind it. A "${" that no "}" matches is literal.
[[nodiscard]] std::vector<PatternPiece> SplitPattern(std::string_view pattern);

// True if `text` has an expression, a broken one included.
[[nodiscard]] bool HasExpression(std::string_view text);

// What is wrong with the first broken expression of `pattern`, printable; none if all compile.
[[nodiscard]] std::optional<std::string> FindBrokenExpression(std::string_view pattern);

// Compiled patterns, by their text. Any thread.
class PatternCache {
 public:
  // True if the whole of `value` fits `pattern`. Never for a broken pattern. Linear in the length
  // of `value`; compiles the pattern if it isn't kept.
  [[nodiscard]] bool Matches(const std::string& pattern, std::string_view value) EXCLUDES(mutex_);

 private:
  // Null for a broken pattern.
  using Compiled = std::shared_ptr<const re2::RE2>;

  [[nodiscard]] Compiled Get(const std::string& pattern, const std::vector<PatternPiece>& pieces)
      EXCLUDES(mutex_);

  void Keep(const std::string& pattern, const Compiled& compiled) REQUIRES(mutex_);

  Mutex mutex_;
  std::unordered_map<std::string, Compiled> compiled_ GUARDED_BY(mutex_);
  // The keys of compiled_, so that one of them can be drawn.
  std::vector<std::string> kept_ GUARDED_BY(mutex_);
  std::minstd_rand random_ GUARDED_BY(mutex_){std::random_device{}()};
};

}  // namespace ProcMgr::Manifest

#endif  // PLATFORM_MANIFEST_PATTERN_H
