// The schema of service files against the loader: what one takes the other takes.

#include "tests/support/json_schema.h"
#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using nlohmann::json;
using PmTest::Result;

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
  const PmTest::JsonSchema schema(json::parse(Run("--schema").out));
  const json& keys = schema.Root().at("$defs").at("application").at("properties");
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
      takes.push_back(schema.Check({{"applications", {app}}}).empty());
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
  const PmTest::JsonSchema schema(json::parse(Run("--schema").out));
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
    EXPECT_EQ(schema.Check(c.file).empty(), c.isTaken) << c.file;
  }
}

}  // namespace
