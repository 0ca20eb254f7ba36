#include "status/json_writer.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace ProcMgr::Status {
namespace {

bool IsPlain(char c) {
  return c >= ' ' && c <= '~' && c != '"' && c != '\\';
}

}  // namespace

void JsonWriter::Separate() {
  if (!text_.empty() && text_.back() != '{' && text_.back() != '[' && text_.back() != ':') {
    text_ += ',';
  }
}

void JsonWriter::Open(char bracket) {
  Separate();
  text_ += bracket;
}

JsonWriter& JsonWriter::Key(std::string_view key) {
  Separate();
  text_.append("\"").append(key).append("\":");
  return *this;
}

void JsonWriter::Null() {
  Separate();
  text_.append("null");
}

void JsonWriter::Bool(bool value) {
  Separate();
  text_.append(value ? "true" : "false");
}

void JsonWriter::Text(std::string_view text) {
  Separate();
  if (std::all_of(text.begin(), text.end(), IsPlain)) {
    text_.append("\"").append(text).append("\"");
    return;
  }
  using nlohmann::json;
  text_.append(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
}

void JsonWriter::TextOrNull(std::string_view text) {
  if (text.empty()) {
    Null();
  } else {
    Text(text);
  }
}

void JsonWriter::Seconds(std::chrono::microseconds time) {
  Decimal(time.count(), 1'000'000);
}

void JsonWriter::Milliseconds(std::chrono::microseconds time) {
  Decimal(time.count(), 1'000);
}

// `count` of what there is `unit`, a power of ten, of in one.
void JsonWriter::Decimal(std::int64_t count, std::int64_t unit) {
  Separate();
  if (count < 0) {
    text_ += '-';
    count = -count;
  }
  AppendDigits(count / unit);
  // A one in front keeps the zeros of the fraction, and gives way to the point.
  const std::size_t point = text_.size();
  AppendDigits(unit + count % unit);
  text_[point] = '.';
}

std::string JsonWriter::Line() && {
  text_ += '\n';
  return std::move(text_);
}

}  // namespace ProcMgr::Status
