// Text bodies: fields, each closed by '#'. Used by the codecs of this folder only.
#ifndef MESSAGE_TEXT_FIELDS_H
#define MESSAGE_TEXT_FIELDS_H

#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace ProcMgr::Serialization {

inline constexpr char kFieldEnd = '#';

// Writes fields one behind the other. Strings go in raw: there is no escaping.
class FieldWriter {
 public:
  void String(std::string_view value) {
    text_ += value;
    text_ += kFieldEnd;
  }

  template <typename Integer>
  void Number(Integer value) {
    static_assert(std::is_integral_v<Integer>);
    char digits[std::numeric_limits<Integer>::digits10 + 2];  // One more digit, and a sign.
    const auto [end, error] = std::to_chars(digits, digits + sizeof(digits), value);
    text_.append(digits, end);
    text_ += kFieldEnd;
  }

  [[nodiscard]] std::string Take() { return std::move(text_); }

 private:
  std::string text_;
};

// Reads fields from a body that a peer wrote, and never past its end.
//
// A string reaches to the next '#', which must be there: a name that breaks off could be the start
// of a longer one. A number may have white space and a sign before it, as in a formatted stream
// input, and the one character behind it (white space skipped) counts as its end, whichever it is.
// "-1" read into an unsigned field gives the same bits as the signed -1. A number without digits,
// or one that doesn't fit its field, breaks the body just as its end does.
//
// Once a field couldn't be read, Failed() holds, nothing more can be read, and no target changes.
class FieldReader {
 public:
  explicit FieldReader(std::string_view body) : rest_(body) {}

  bool String(std::string& value);
  bool SkipString();

  template <typename Integer>
  bool Number(Integer& value) {
    static_assert(std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>);
    std::uint64_t magnitude = 0;
    bool negative = false;
    if (!NumberField(magnitude, negative)) {
      return false;
    }
    std::uint64_t limit{static_cast<std::uint64_t>(std::numeric_limits<Integer>::max())};
    if (std::is_signed_v<Integer> && negative) {
      ++limit;
    }
    if (magnitude > limit) {
      return Fail();
    }
    value = static_cast<Integer>(negative ? 0 - magnitude : magnitude);
    return true;
  }

  [[nodiscard]] bool Failed() const { return failed_; }

 private:
  bool Fail() {
    failed_ = true;
    rest_ = {};
    return false;
  }
  bool NumberField(std::uint64_t& magnitude, bool& negative);
  bool StringField(std::string_view& value);
  void SkipSpace();

  std::string_view rest_;
  bool failed_ = false;
};

}  // namespace ProcMgr::Serialization

#endif  // MESSAGE_TEXT_FIELDS_H
