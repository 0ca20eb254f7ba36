// Writes JSON to the end of one string, value by value, without a tree of it in between: a picture
// of a thousand applications is asked for by whoever draws it again and again.
//
// The commas are set by the writer; that keys and values take turns, and that each bracket is
// closed, is up to the caller.
#ifndef STATUS_JSON_WRITER_H
#define STATUS_JSON_WRITER_H

#include <charconv>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace ProcMgr::Status {

class JsonWriter {
 public:
  void Open(char bracket);
  void Close(char bracket) { text_ += bracket; }
  // A word of the program's own or of the kernel's: nothing in it is escaped.
  JsonWriter& Key(std::string_view key);

  void Null();
  void Bool(bool value);
  // Bytes that aren't UTF-8 are replaced.
  void Text(std::string_view text);
  void TextOrNull(std::string_view text);  // Null for an empty one.
  void Number(std::integral auto number) {
    Separate();
    AppendDigits(number);
  }
  template <std::integral Value>
  void NumberOrNull(const std::optional<Value>& number) {
    if (number) {
      Number(*number);
    } else {
      Null();
    }
  }
  // With six and three digits behind the point.
  void Seconds(std::chrono::microseconds time);
  void Milliseconds(std::chrono::microseconds time);

  // What has been written, as one line.
  [[nodiscard]] std::string Line() &&;

 private:
  // Behind a value comes a comma. Whatever ends a value is none of the bytes that it looks for.
  void Separate();
  void AppendDigits(std::integral auto number) {
    char digits[24];
    text_.append(digits, std::to_chars(std::begin(digits), std::end(digits), number).ptr);
  }
  void Decimal(std::int64_t count, std::int64_t unit);

  std::string text_;
};

}  // namespace ProcMgr::Status

#endif  // STATUS_JSON_WRITER_H
