#include "status/request.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace ProcMgr::Status {
namespace {

using nlohmann::json;

// Takes a request as the parser comes to its values. The library's own tree of them won't do: to
// give an object's memory back it takes some, in a destructor, and ends the process if there is
// none.
class RequestReader : public nlohmann::json_sax<json> {
 public:
  [[nodiscard]] Request Take() && { return std::move(request_); }

  bool null() override { return Value({}, false); }
  bool boolean(bool value) override { return Value({}, value); }
  bool number_integer(json::number_integer_t /*value*/) override { return Value({}, false); }
  bool number_unsigned(json::number_unsigned_t /*value*/) override { return Value({}, false); }
  bool number_float(json::number_float_t /*value*/, const std::string& /*text*/) override {
    return Value({}, false);
  }
  bool string(std::string& value) override { return Value(std::move(value), false); }
  bool binary(json::binary_t& /*value*/) override { return Value({}, false); }
  bool start_object(std::size_t /*members*/) override {
    isObject_ = isObject_ || depth_ == 0;
    return Begin();
  }
  bool key(std::string& name) override {
    if (depth_ == 1) {
      key_ = std::move(name);
    }
    return true;
  }
  bool end_object() override { return End(); }
  bool start_array(std::size_t /*elements*/) override { return Begin(); }
  bool end_array() override { return End(); }
  bool parse_error(std::size_t /*place*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

 private:
  // Of several members with one key the last one holds. One of another type is none.
  bool Value(std::string text, bool isTrue) {
    if (depth_ != 1 || !isObject_) {
      return true;
    }
    if (key_ == "get") {
      request_.get = std::move(text);
    } else if (key_ == "name") {
      request_.name = std::move(text);
    } else if (key_ == "watch") {
      request_.isWatch = isTrue;
    }
    return true;
  }
  bool Begin() {
    (void)Value({}, false);
    ++depth_;
    return true;
  }
  bool End() {
    --depth_;
    return true;
  }

  Request request_;
  std::string key_;
  int depth_ = 0;
  bool isObject_ = false;  // The whole is one.
};

}  // namespace

Request ParseRequest(const std::string& line) {
  RequestReader reader;
  if (!json::sax_parse(line, &reader)) {
    return {};
  }
  return std::move(reader).Take();
}

}  // namespace ProcMgr::Status
