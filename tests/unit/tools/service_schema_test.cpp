// The schema of service files against the loader: what one takes the other takes.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using nlohmann::json;
using PmTest::Result;

// The words of JSON schema that our schema uses; any other fails the test.
class Validator {
 public:
  explicit Validator(json schema) : root_(std::move(schema)) {}

  bool Takes(const json& schema, const json& value) const {
    bool takes = true;
    for (const auto& [word, rule] : schema.items()) {
      takes = takes && Word(schema, word, rule, value);
    }
    return takes;
  }

  [[nodiscard]] const json& Root() const { return root_; }

 private:
  static bool IsOfType(const std::string& type, const json& value) {
    return (type == "string" && value.is_string()) || (type == "boolean" && value.is_boolean()) ||
           (type == "integer" && value.is_number_integer()) ||
           (type == "number" && value.is_number()) || (type == "null" && value.is_null()) ||
           (type == "array" && value.is_array()) || (type == "object" && value.is_object());
  }

  static bool Fits(const std::string& pattern, const json& value) {
    return !value.is_string() || std::regex_search(value.get<std::string>(), std::regex(pattern));
  }

  bool Word(const json& schema, const std::string& word, const json& rule,
            const json& value) const {
    const auto takes = [&](const json& element) { return Takes(rule, element); };
    if (word == "$ref") {
      return Takes(root_.at(json::json_pointer(rule.get<std::string>().substr(1))), value);
    }
    if (word == "type") {
      return rule.is_string() ? IsOfType(rule, value)
                              : std::any_of(rule.begin(), rule.end(), [&](const json& type) {
                                  return IsOfType(type, value);
                                });
    }
    if (word == "enum") {
      return std::find(rule.begin(), rule.end(), value) != rule.end();
    }
    if (word == "anyOf") {
      return std::any_of(rule.begin(), rule.end(),
                         [&](const json& each) { return Takes(each, value); });
    }
    if (word == "minimum" || word == "maximum") {
      return !value.is_number() || (word == "minimum" ? value >= rule : value <= rule);
    }
    if (word == "minLength" || word == "maxLength") {
      const std::size_t length = value.is_string() ? value.get<std::string>().size() : 1;
      return word == "minLength" ? length >= rule : length <= rule;
    }
    if (word == "pattern") {
      return Fits(rule, value);
    }
    if (word == "items") {
      return !value.is_array() || std::all_of(value.begin(), value.end(), takes);
    }
    if (word == "if") {
      return Takes(schema.at(Takes(rule, value) ? "then" : "else"), value);
    }
    return ObjectWord(schema, word, rule, value);
  }

  bool ObjectWord(const json& schema, const std::string& word, const json& rule,
                  const json& value) const {
    const json none = json::object();
    const json& object = value.is_object() ? value : none;
    if (word == "required") {
      return std::all_of(rule.begin(), rule.end(), [&](const json& key) {
        return !value.is_object() || value.contains(key.get<std::string>());
      });
    }
    if (word == "properties") {
      return std::all_of(rule.items().begin(), rule.items().end(), [&](const auto& each) {
        return !object.contains(each.key()) || Takes(each.value(), object.at(each.key()));
      });
    }
    if (word == "propertyNames") {
      return std::all_of(object.items().begin(), object.items().end(),
                         [&](const auto& each) { return Takes(rule, each.key()); });
    }
    if (word == "additionalProperties") {
      const json& properties = schema.contains("properties") ? schema.at("properties") : none;
      return std::all_of(object.items().begin(), object.items().end(), [&](const auto& each) {
        return properties.contains(each.key()) ||
               (rule.is_boolean() ? rule.get<bool>() : Takes(rule, each.value()));
      });
    }
    static const std::set<std::string> kOthers = {"then",  "else",    "default", "description",
                                                  "title", "$schema", "$defs"};
    EXPECT_TRUE(kOthers.contains(word)) << word;
    return true;
  }

  const json root_;
};

const std::vector<json>& Values() {
  static const json kValues = json::parse(R"([
    null, true, false, 0, -1, -2, -20, -21, 19, 20, 255, 1023, 1024, 2147483647, 2147483648,
    -2147483648, -2147483649, 4294967295, 4294967296, 1.5, "", "root", "7", "true", "x y", "0-3, 7",
    "4", "/p", "a/b", "a#b", "on-failure", "on-until-succeed", "sometimes", "no", "${a}", "b${[#/]{1,2}}#", "b${[#/]{1,2}}",
    "/x/${a}", [], ["a"], ["a", 1, null, true, 1.5], [0, "2-3"], ["1,5-7"], [""], [1024], [[1]],
    [{}], {}, {"A": 1}, {"A": "b", "C": null}, {"": 1}, {"A=B": 1}, {"A": [1]},
    [{"groupName": "g"}], [{"groupName": ""}], [{"groupName": 1}], [{"permission": "rw"}],
    [{"groupName": "g", "permission": "rw"}], [{"groupName": "g", "permission": true}]])");
  static const std::vector<json> kList(kValues.begin(), kValues.end());
  return kList;
}

class ServiceSchema : public PmTest::PmCheck {
 protected:
  // The lines of the file in which the loader has an error.
  std::set<int> FaultyLines(const std::string& file) {
    std::set<int> lines;
    const json report = json::parse(Run("--format json " + file).out);
    for (const json& finding : report.at("files").at(0).at("findings")) {
      if (finding.at("rule") == "faulty-file") {
        lines.insert(finding.at("line").get<int>());
      }
    }
    return lines;
  }
};

TEST_F(ServiceSchema, CommittedOneIsTheOneOfTheLoader) {
  std::ostringstream committed;
  committed << std::ifstream(SERVICE_SCHEMA).rdbuf();
  const Result result = Run("--schema");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, committed.str()) << "print it anew: pmcheck --schema";
}

TEST_F(ServiceSchema, TakesForEachKeyWhatTheLoaderTakes) {
  const Validator validator(json::parse(Run("--schema").out));
  const json& keys = validator.Root().at("$defs").at("application").at("properties");
  EXPECT_EQ(keys.size(), 30U);
  std::ostringstream page;
  page << std::ifstream(SERVICE_PAGE).rdbuf();
  for (const auto& [key, rule] : keys.items()) {
    EXPECT_NE(page.str().find(key), std::string::npos) << key << " isn't in the manual page";
    std::string text = "applications:\n";
    std::vector<bool> takes;
    for (const json& value : Values()) {
      json app = {{"appName", "a" + std::to_string(takes.size())},
                  {"binPath", "/b"},
                  {"uid", 1},
                  {"gid", 1}};
      app[key] = value;
      text += "  - " + app.dump() + '\n';
      takes.push_back(validator.Takes(validator.Root(), {{"applications", {app}}}));
    }
    folder_.Write("values.yaml", text);
    const std::set<int> faulty = FaultyLines("values.yaml");
    for (std::size_t i = 0; i < takes.size(); ++i) {
      // Only the user database tells a user's name from another text.
      const json& value = Values()[i];
      const bool isName = (key == "uid" || key == "gid") && value.is_string() && value != "root";
      if (!isName) {
        EXPECT_EQ(takes[i], !faulty.contains(static_cast<int>(i) + 2)) << key << ": " << value;
      }
    }
  }
}

TEST_F(ServiceSchema, TakesTheFormsOfAFile) {
  const Validator validator(json::parse(Run("--schema").out));
  const json app = {{"appName", "a"}, {"binPath", "/b"}, {"uid", 1}, {"gid", 1}};
  const json include = {{"include", "a.yaml"}};
  const struct {
    json file;
    bool isTaken;
  } cases[] = {
      {{{"applications", {app, include}}}, true},
      {json::array({app, include}), true},  // An included file.
      {app, true},
      {include, false},
      {json::object(), false},
      {{{"applications", app}}, false},
      {{{"applications", {{{"include", "a"}, {"appName", "b"}}}}}, false},
      {{{"applications", {{{"appName", "b"}}}}}, false},
      {"text", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(validator.Takes(validator.Root(), c.file), c.isTaken) << c.file;
  }
}

}  // namespace
