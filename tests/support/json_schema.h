// As much of JSON Schema as the project's own schemas use. A keyword that isn't known here is an
// error of the schema, so that nothing in it goes unchecked.
#ifndef TESTS_SUPPORT_JSON_SCHEMA_H
#define TESTS_SUPPORT_JSON_SCHEMA_H

#include <nlohmann/json.hpp>
#include <regex>

#include "tests/support/test.h"

namespace PmTest {

class JsonSchema {
 public:
  explicit JsonSchema(nlohmann::json root) : root_(std::move(root)) {}

  // Empty, or what is wrong with `value`.
  [[nodiscard]] std::string Check(const nlohmann::json& value) const {
    return Fault(value, root_, "");
  }
  // The same by the definition of that name.
  [[nodiscard]] std::string Check(const nlohmann::json& value,
                                  const std::string& definition) const {
    return Fault(value, {{"$ref", "#/definitions/" + definition}}, definition);
  }

  [[nodiscard]] const nlohmann::json& Root() const { return root_; }

 private:
  using Json = nlohmann::json;

  static bool IsOfType(const Json& value, const std::string& type) {
    return (type == "number" && value.is_number()) ||
           (type == "integer" && value.is_number_integer()) ||
           (type == "string" && value.is_string()) || (type == "boolean" && value.is_boolean()) ||
           (type == "null" && value.is_null()) || (type == "array" && value.is_array()) ||
           (type == "object" && value.is_object());
  }

  std::string Fault(const Json& value, const Json& schema, const std::string& at) const {
    for (const auto& [keyword, rule] : schema.items()) {
      std::string fault = FaultByOne(value, schema, keyword, rule, at);
      if (!fault.empty()) {
        return fault;
      }
    }
    return {};
  }

  std::string FaultByOne(const Json& value, const Json& schema, const std::string& keyword,
                         const Json& rule, const std::string& at) const {
    static const std::set<std::string> kSilent = {"then",  "else",    "default", "description",
                                                  "title", "$schema", "$defs",   "definitions"};
    if (keyword == "$ref") {
      return Fault(value, root_.at(Json::json_pointer(rule.get<std::string>().substr(1))), at);
    }
    if (keyword == "if") {
      return Fault(value, schema.at(Fault(value, rule, at).empty() ? "then" : "else"), at);
    }
    if (keyword == "items") {
      return value.is_array() ? FaultOfEach(value, rule, at) : "";
    }
    if (keyword == "properties" || keyword == "additionalProperties") {
      return value.is_object() ? FaultOfMembers(value, schema, at) : "";
    }
    const std::optional<bool> holds = Holds(value, keyword, rule, at);
    if (!holds) {
      return kSilent.contains(keyword) ? "" : at + ": unknown keyword " + keyword;
    }
    return *holds ? "" : at + ": " + value.dump() + " against " + keyword + " " + rule.dump();
  }

  // None for a keyword that is unknown.
  std::optional<bool> Holds(const Json& value, const std::string& keyword, const Json& rule,
                            const std::string& at) const {
    const auto fits = [&](const Json& schema) { return Fault(value, schema, at).empty(); };
    if (keyword == "const") {
      return value == rule;
    }
    if (keyword == "enum") {
      return std::find(rule.begin(), rule.end(), value) != rule.end();
    }
    if (keyword == "type") {
      const Json types = rule.is_array() ? rule : Json::array({rule});
      return std::any_of(types.begin(), types.end(),
                         [&](const Json& type) { return IsOfType(value, type); });
    }
    if (keyword == "anyOf") {
      return std::any_of(rule.begin(), rule.end(), fits);
    }
    if (keyword == "minimum" || keyword == "maximum") {
      return !value.is_number() || (keyword == "minimum" ? value >= rule : value <= rule);
    }
    if (keyword == "minLength" || keyword == "maxLength") {
      const std::size_t length = value.is_string() ? value.get<std::string>().size() : 1;
      return keyword == "minLength" ? length >= rule : length <= rule;
    }
    if (keyword == "pattern") {
      return !value.is_string() ||
             std::regex_search(value.get<std::string>(), std::regex(rule.get<std::string>()));
    }
    if (keyword == "maxItems" || keyword == "maxProperties") {
      return !value.is_structured() || value.size() <= rule;
    }
    if (keyword == "minProperties") {
      return !value.is_object() || value.size() >= rule;
    }
    if (keyword == "required") {
      return !value.is_object() || std::all_of(rule.begin(), rule.end(), [&value](const Json& key) {
        return value.contains(key.get<std::string>());
      });
    }
    if (keyword == "propertyNames") {
      return !value.is_object() ||
             std::all_of(value.items().begin(), value.items().end(),
                         [&](const auto& member) { return Fault(member.key(), rule, at).empty(); });
    }
    return std::nullopt;
  }

  [[nodiscard]] std::string FaultOfEach(const Json& list, const Json& schema,
                                        const std::string& at) const {
    const auto wrong = std::find_if(list.begin(), list.end(), [&](const Json& element) {
      return !Fault(element, schema, at).empty();
    });
    return wrong == list.end() ? "" : Fault(*wrong, schema, at + "[]");
  }

  [[nodiscard]] std::string FaultOfMembers(const Json& object, const Json& schema,
                                           const std::string& at) const {
    const Json known = schema.value("properties", Json::object());
    const Json others = schema.value("additionalProperties", Json(true));
    std::string fault;
    for (const auto& [key, member] : object.items()) {
      std::string place = at;
      place.append(".").append(key);
      if (known.contains(key)) {
        fault = Fault(member, known.at(key), place);
      } else if (others.is_object()) {
        fault = Fault(member, others, place);
      } else if (!others.get<bool>()) {
        fault = place + ": unknown member";
      }
      if (!fault.empty()) {
        break;
      }
    }
    return fault;
  }

  const Json root_;
};

}  // namespace PmTest

#endif  // TESTS_SUPPORT_JSON_SCHEMA_H
