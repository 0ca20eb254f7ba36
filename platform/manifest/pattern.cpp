#include "platform/manifest/pattern.h"

#include <re2/re2.h>
#include <re2/stringpiece.h>

#include <algorithm>

#include "base/printable.h"

namespace ProcMgr::Manifest {
namespace {

constexpr std::string_view kOpening = "${";
// Patterns come from configuration files, so there are few; whoever has more compiles some again.
constexpr std::size_t kMaxKept = 1024;
// Program and states of one expression. Without room for its states RE2 falls back on a slower
// method, linear all the same.
constexpr std::int64_t kExpressionMemory = std::int64_t{1} << 20;

re2::StringPiece Piece(std::string_view text) {
  return {text.data(), text.size()};
}

RE2::Options Quiet() {
  RE2::Options options;
  options.set_log_errors(false);
  options.set_max_mem(kExpressionMemory);
  return options;
}

// For each "{" of `text` behind its first "${", the offset of the "}" that matches it; npos where
// there is none. One pass, so that a text of nothing but openings costs no more than any other.
std::vector<std::size_t> MatchBraces(std::string_view text) {
  std::vector<std::size_t> closing(text.size(), std::string_view::npos);
  std::vector<std::size_t> open;
  for (std::size_t at = text.find(kOpening); at < text.size(); ++at) {
    if (text[at] == '\\') {
      ++at;
    } else if (text[at] == '{') {
      open.push_back(at);
    } else if (text[at] == '}' && !open.empty()) {
      closing[open.back()] = at;
      open.pop_back();
    }
  }
  return closing;
}

bool HasExpression(const std::vector<PatternPiece>& pieces) {
  return std::any_of(pieces.begin(), pieces.end(), [](const auto& p) { return p.isExpression; });
}

// Null if an expression is broken, or if all of them together are too large.
std::shared_ptr<const RE2> Compile(const std::vector<PatternPiece>& pieces) {
  std::string whole;
  for (const PatternPiece& piece : pieces) {
    if (!piece.isExpression) {
      whole += RE2::QuoteMeta(Piece(piece.text));
    } else if (RE2(Piece(piece.text), Quiet()).ok()) {
      // Alone first: an expression like "a)(b" would be well-formed between the brackets.
      whole.append("(?:").append(piece.text).append(")");
    } else {
      return nullptr;
    }
  }
  auto compiled = std::make_shared<const RE2>(whole, Quiet());
  return compiled->ok() ? compiled : nullptr;
}

}  // namespace

std::vector<PatternPiece> SplitPattern(std::string_view pattern) {
  std::vector<PatternPiece> pieces;
  std::size_t done = 0;
  std::size_t at = pattern.find(kOpening);
  const std::vector<std::size_t> closing =
      at == std::string_view::npos ? std::vector<std::size_t>() : MatchBraces(pattern);
  while (at != std::string_view::npos) {
    const std::size_t begin = at + kOpening.size();
    const std::size_t end = closing[begin - 1];
    if (end == std::string_view::npos) {
      at = pattern.find(kOpening, begin);
      continue;
    }
    if (at > done) {
      pieces.push_back({false, pattern.substr(done, at - done)});
    }
    pieces.push_back({true, pattern.substr(begin, end - begin)});
    done = end + 1;
    at = pattern.find(kOpening, done);
  }
  if (done < pattern.size()) {
    pieces.push_back({false, pattern.substr(done)});
  }
  return pieces;
}

bool HasExpression(std::string_view text) {
  return HasExpression(SplitPattern(text));
}

std::optional<std::string> FindBrokenExpression(std::string_view pattern) {
  const std::vector<PatternPiece> pieces = SplitPattern(pattern);
  for (const PatternPiece& piece : pieces) {
    if (!piece.isExpression) {
      continue;
    }
    const RE2 alone(Piece(piece.text), Quiet());
    if (!alone.ok()) {
      return "the expression " + Quoted(piece.text) + " is broken: " + Printable(alone.error());
    }
  }
  if (HasExpression(pieces) && Compile(pieces) == nullptr) {
    return "the expressions of " + Quoted(pattern) + " are too large together";
  }
  return std::nullopt;
}

bool PatternCache::Matches(const std::string& pattern, std::string_view value) {
  const std::vector<PatternPiece> pieces = SplitPattern(pattern);
  if (!HasExpression(pieces)) {
    return pattern == value;
  }
  // Who looks for a name tries many patterns: most fall out here, and need never be compiled.
  const PatternPiece& first = pieces.front();
  const PatternPiece& last = pieces.back();
  if ((!first.isExpression && !value.starts_with(first.text)) ||
      (!last.isExpression && !value.ends_with(last.text))) {
    return false;
  }
  const Compiled compiled = Get(pattern, pieces);
  return compiled != nullptr && RE2::FullMatch(Piece(value), *compiled);
}

PatternCache::Compiled PatternCache::Get(const std::string& pattern,
                                         const std::vector<PatternPiece>& pieces) {
  {
    const MutexLock lock(mutex_);
    const auto kept = compiled_.find(pattern);
    if (kept != compiled_.end()) {
      return kept->second;
    }
  }
  // Compiled without the lock: two threads may do the same work once, and nobody waits for it.
  Compiled compiled = Compile(pieces);
  const MutexLock lock(mutex_);
  Keep(pattern, compiled);
  return compiled;
}

// A look for a name asks all patterns in turn. If the oldest made room, none would be kept until
// it is asked again as soon as there is one too many; where chance decides, only the share that
// doesn't fit is compiled anew.
void PatternCache::Keep(const std::string& pattern, const Compiled& compiled) {
  if (!compiled_.emplace(pattern, compiled).second) {
    return;
  }
  if (kept_.size() < kMaxKept) {
    kept_.push_back(pattern);
    return;
  }
  std::string& victim = kept_[random_() % kept_.size()];
  compiled_.erase(victim);
  victim = pattern;
}

}  // namespace ProcMgr::Manifest
