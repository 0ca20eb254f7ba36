#include "message/text_fields.h"

#include <charconv>

namespace ProcMgr::Serialization {

void FieldReader::SkipSpace() {
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  const std::size_t first = rest_.find_first_not_of(kSpace);
  rest_.remove_prefix(first == std::string_view::npos ? rest_.size() : first);
}

bool FieldReader::StringField(std::string_view& value) {
  const std::size_t end = rest_.find(kFieldEnd);
  if (end == std::string_view::npos) {
    return Fail();
  }
  value = rest_.substr(0, end);
  rest_.remove_prefix(end + 1);
  return true;
}

bool FieldReader::String(std::string& value) {
  std::string_view field;
  if (!StringField(field)) {
    return false;
  }
  value = field;
  return true;
}

bool FieldReader::SkipString() {
  std::string_view field;
  return StringField(field);
}

bool FieldReader::NumberField(std::uint64_t& magnitude, bool& negative) {
  SkipSpace();
  negative = rest_.starts_with('-');
  if (negative || rest_.starts_with('+')) {
    rest_.remove_prefix(1);
  }
  const char* const end = rest_.data() + rest_.size();
  const auto [stop, error] = std::from_chars(rest_.data(), end, magnitude);
  if (error != std::errc{}) {
    return Fail();
  }
  rest_.remove_prefix(static_cast<std::size_t>(stop - rest_.data()));
  SkipSpace();
  if (rest_.empty()) {
    return Fail();
  }
  rest_.remove_prefix(1);
  return true;
}

}  // namespace ProcMgr::Serialization
