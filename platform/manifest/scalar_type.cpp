// How a plain scalar resolves in the core schema of YAML 1.2.
#include <algorithm>
#include <array>
#include <cctype>
#include <limits>

#include "base/text.h"
#include "platform/manifest/manifest_values.h"

namespace ProcMgr::Manifest {
namespace {

constexpr std::array<std::string_view, 3> kTrueWords = {"true", "True", "TRUE"};
constexpr std::array<std::string_view, 3> kFalseWords = {"false", "False", "FALSE"};
constexpr std::array<std::string_view, 6> kSpecialFloats = {".inf", ".Inf", ".INF",
                                                            ".nan", ".NaN", ".NAN"};

template <std::size_t kCount>
bool IsAmong(std::string_view text, const std::array<std::string_view, kCount>& words) {
  return std::find(words.begin(), words.end(), text) != words.end();
}

std::string_view WithoutSign(std::string_view text) {
  const bool hasSign = text.starts_with('-') || text.starts_with('+');
  return hasSign ? text.substr(1) : text;
}

// Takes the digits at the beginning of `text` off it; yields how many there were.
std::size_t TakeDigits(std::string_view& text) {
  const auto* const end =
      std::find_if_not(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  const auto count = static_cast<std::size_t>(end - text.begin());
  text.remove_prefix(count);
  return count;
}

bool IsInteger(std::string_view text) {
  if (text.starts_with("0o")) {
    return text.size() > 2 && text.find_first_not_of("01234567", 2) == std::string_view::npos;
  }
  if (text.starts_with("0x")) {
    return text.size() > 2 &&
           text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
  }
  const std::string_view digits = WithoutSign(text);
  return !digits.empty() && IsStrDigits(digits);
}

// Digits, a point and an exponent, in the forms 1.5, .5, 1. and 1e3.
bool IsFloat(std::string_view text) {
  text = WithoutSign(text);
  if (IsAmong(text, kSpecialFloats)) {
    return true;
  }
  std::size_t digits = TakeDigits(text);
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    digits += TakeDigits(text);
  }
  if (digits == 0) {
    return false;
  }
  if (text.starts_with('e') || text.starts_with('E')) {
    text = WithoutSign(text.substr(1));
    if (TakeDigits(text) == 0) {
      return false;
    }
  }
  return text.empty();
}

}  // namespace

ScalarType TypeOf(const YamlNode& scalar) {
  if (scalar.kind == YamlNode::Kind::kNull) {
    return ScalarType::kNull;
  }
  if (scalar.isQuoted) {
    return ScalarType::kText;
  }
  if (IsAmong(scalar.text, kTrueWords) || IsAmong(scalar.text, kFalseWords)) {
    return ScalarType::kBoolean;
  }
  if (IsInteger(scalar.text)) {
    return ScalarType::kInteger;
  }
  return IsFloat(scalar.text) ? ScalarType::kFloat : ScalarType::kText;
}

std::optional<bool> BooleanOf(const YamlNode& node) {
  if (node.kind != YamlNode::Kind::kScalar || TypeOf(node) != ScalarType::kBoolean) {
    return std::nullopt;
  }
  return IsAmong(node.text, kTrueWords);
}

std::optional<std::int64_t> IntegerOf(const YamlNode& node) {
  if (node.kind != YamlNode::Kind::kScalar || TypeOf(node) != ScalarType::kInteger) {
    return std::nullopt;
  }
  const std::string_view text = node.text;
  if (text.starts_with("0o")) {
    return ParseNumber<std::int64_t>(text.substr(2), 8);
  }
  if (text.starts_with("0x")) {
    return ParseNumber<std::int64_t>(text.substr(2), 16);
  }
  return ParseNumber<std::int64_t>(text.starts_with('+') ? text.substr(1) : text);
}

}  // namespace ProcMgr::Manifest
