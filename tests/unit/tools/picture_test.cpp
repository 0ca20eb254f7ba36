// What the access manager makes of the manager's reports.
#include "tools/iammgr/picture.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/temp_folder.h"

namespace {

using ProcMgr::Message::AppStateInfo;

class PictureTest : public ::testing::Test {
 protected:
  PictureTest() {
    folder_.Write("entry.yaml", R"(applications:
  - {appName: fixed, binPath: /b, uid: 1, gid: 1}
  - {appName: "some${[0-9]}", binPath: /b, uid: 1, gid: 1}
)");
    base_ = folder_.Write("base.yaml", R"(applications:
  - {appName: owner, binPath: /b, uid: 1, gid: 1, startupEntryPath: entry.yaml}
)");
  }

  // The row of the only process that the reports, which come one a second, leave behind.
  nlohmann::json RowAfter(const std::vector<AppStateInfo>& reports) const {
    Iammgr::Picture picture(base_);
    for (std::size_t i = 0; i < reports.size(); ++i) {
      picture.Apply({reports[i]}, static_cast<std::time_t>(i));
    }
    const auto rows = nlohmann::json::parse(picture.ToJson()).at("processes");
    return rows.size() == 1 ? rows[0] : nlohmann::json(rows.size());
  }

  PmTest::TempFolder folder_;
  std::string base_;
};

TEST_F(PictureTest, ReportsMakeARow) {
  const struct {
    const char* what;
    std::vector<AppStateInfo> reports;
    const char* row;  // kind, owner, pid, state, seconds of since, restarts
  } cases[] = {
      {"the manager", {{"PROCMGR", 1, 0, 0, 0}}, R"(["manager",null,1,"running",0,0])"},
      {"a base service that came back",
       {{"owner", 5, 0, 0, 0}, {"owner", 5, 0, 4, 0}, {"owner", 6, 0, 0, 0}},
       R"(["base",null,6,"running",2,1])"},
      {"a repeated report changes nothing",
       {{"owner", 5, 0, 0, 0}, {"owner", 5, 0, 0, 0}},
       R"(["base",null,5,"running",0,0])"},
      {"a start after an end is no restart",
       {{"fixed", 5, 0, 0, 0}, {"fixed", 5, 0, 3, 0}, {"fixed", 6, 0, 0, 0}},
       R"(["general","owner",6,"running",2,0])"},
      {"a restart",
       {{"some1", 5, 0, 0, 0}, {"some1", 6, 0, 1, 0}},
       R"(["general","owner",6,"running",1,1])"},
      {"not up yet", {{"fixed", 5, 0, 5, 0}}, R"(["general","owner",5,"starting",0,0])"},
      {"an answer that says that nothing has happened",
       {{"fixed", 5, 0, 0, 0}, {"fixed", 5, 0, 5, 0}},
       R"(["general","owner",5,"running",0,0])"},
      {"one that must not be killed",
       {{"fixed", 5, 0, 0, 0}, {"fixed", 5, 0, 2, 0}},
       R"(["general","owner",5,"term-timeout",1,0])"},
      {"a failure without a process",
       {{"fixed", 5, 0, 0, 0}, {"fixed", 0, 0, 4, 0}},
       R"(["general","owner",null,"failed",1,0])"},
      {"a stranger", {{"other", 1, 0, 0, 0}}, R"(["self-reported",null,1,"running",0,0])"},
  };
  for (const auto& c : cases) {
    const nlohmann::json row = RowAfter(c.reports);
    ASSERT_TRUE(row.is_object()) << c.what;
    const auto expected = nlohmann::json::parse(c.row);
    EXPECT_EQ(row.at("kind"), expected[0]) << c.what;
    EXPECT_EQ(row.at("owner"), expected[1]) << c.what;
    EXPECT_EQ(row.at("pid"), expected[2]) << c.what;
    EXPECT_EQ(row.at("state"), expected[3]) << c.what;
    EXPECT_EQ(row.at("since"), "1970-01-01T00:00:0" + expected[4].dump() + "Z") << c.what;
    EXPECT_EQ(row.at("restarts"), expected[5]) << c.what;
  }
}

TEST_F(PictureTest, AnswerForANameWithoutAProcessLeavesNoRow) {
  EXPECT_EQ(RowAfter({{"misspelt", 0, 0, 3, 0}, {"misspelt", 0, 0, 4, 0}}), 0);
}

TEST_F(PictureTest, MadeUpNamesDontMakeItGrowWithoutEnd) {
  Iammgr::Picture picture(base_);
  constexpr int kNames = 9000;
  picture.Apply({{"fixed", 5, 0, 0, 0}}, 0);
  for (int i = 0; i < kNames; ++i) {
    const std::string name = "made-up-" + std::to_string(i);
    picture.Apply({{name, 1 << 30, 0, 0, 0}, {name, 1 << 30, 0, 3, 0}}, i);
  }
  const auto rows = nlohmann::json::parse(picture.ToJson()).at("processes");
  EXPECT_EQ(rows.size(), 8192U);
  EXPECT_EQ(rows[0].at("name"), "fixed");  // What runs is never dropped.
}

}  // namespace
