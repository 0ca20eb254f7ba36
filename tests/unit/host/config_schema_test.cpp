// The schemas of the configuration files against their loaders: what one takes without a word in
// the log the other takes.
#include "host/proc_mgr_cfg.h"
#include "host/sharepool_cfg.h"
#include "tests/support/json_schema.h"
#include "tests/support/log_capture.h"
#include "tests/support/test.h"

namespace {

using nlohmann::json;

const json kValues = json::parse(R"([
  null, true, false, 0, 1, 2, 3, -1, -128, -129, 127, 128, 4294967295, 4294967296, 1.5, "", "0", "2", "60", "6x", "-1",
  "pass", "immediate", "root", "true", [], ["a"], ["a", "/b"], [""], [1, null], [[1]], {}, {"A": {"mem_size": 1}},
  {"A": {"mem_size": -1}}, {"A": {}}, {"A": 1}, [{"A": {"mem_size": 1}}], [{"A": {"mem_size": "x"}}], [{"A": 1}],
  [{"A": {"mem_size": 1}, "B": {"mem_size": 2}}], [{}], {"": {"mem_size": 1}}])");

class ConfigSchema : public ::testing::Test {
 protected:
  static json Read(const std::string& path) {
    std::ifstream file(path);
    return json::parse(file);
  }

  // `load` has the loader read a file that holds `document`.
  void Compare(const PmTest::JsonSchema& schema, const json& document,
               const std::function<void(const std::string& path)>& load) {
    const std::string path = folder_.Write("files/a.yaml", document.dump());
    log_.Take();
    load(path);
    const std::vector<std::string> lines = log_.Take();
    const auto fault = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with('W') || line.starts_with('E');
    });
    EXPECT_EQ(schema.Check(document).empty(), fault == lines.end())
        << document << "\nschema: " << schema.Check(document)
        << "\nloader: " << (fault == lines.end() ? "" : *fault);
  }

  PmTest::TempFolder folder_;
  PmTest::LogCapture log_;
};

void LoadSettings(const std::string& path) {
  ProcMgr::ProcMgrCfg cfg;
  LoadProcMgrCfg(path, cfg);
}

TEST_F(ConfigSchema, OfTheSettingsTakesForEachKeyWhatTheLoaderTakes) {
  const PmTest::JsonSchema schema(Read(DOCS "/procmgr-cfg.schema.json"));
  const json whole = {{"watch_dog", {{"enable", true}, {"timeout", 60}, {"action", 2}}},
                      {"pmupload", {{"enable", true}}}};
  std::size_t keys = 0;
  for (const auto& [name, mapping] : schema.Root().at("properties").items()) {
    json without = whole;
    without.erase(name);
    Compare(schema, without, &LoadSettings);
    for (const auto& [key, rule] : mapping.at("properties").items()) {
      ++keys;
      json document = whole;
      document[name] = whole.value(name, json::object());
      document[name].erase(key);
      Compare(schema, document, &LoadSettings);
      for (const json& value : kValues) {
        document[name][key] = value;
        // Only the group database tells a group's name from another text.
        const bool isName = key == "group" && value.is_string() && value != "root";
        // The schema has numbers written as such.
        const bool isQuoted = name == "delay_core" && value.is_string();
        if (!isName && !isQuoted) {
          Compare(schema, document, &LoadSettings);
        }
      }
    }
  }
  EXPECT_EQ(keys, 10U);
}

TEST_F(ConfigSchema, OfTheSharePoolsTakesForEachKeyWhatTheLoaderTakes) {
  const PmTest::JsonSchema schema(Read(DOCS "/sharepool.schema.json"));
  const auto load = [this](const std::string&) {
    ProcMgr::SharepoolCfg cfg;
    cfg.LoadSharepoolCfg(folder_.Path("files"));
  };
  const json whole = {{"sharepool_groups", json::array()},
                      {"admin_pro_lists", {"a"}},
                      {"add_all_groups_white_lists", {"/b"}}};
  Compare(schema, whole, load);
  for (const auto& [key, rule] : schema.Root().at("properties").items()) {
    json document = whole;
    document.erase(key);
    Compare(schema, document, load);
    for (const json& value : kValues) {
      document[key] = value;
      Compare(schema, document, load);
    }
  }
}

}  // namespace
