// The start graph: rounds, foreign names, and circles that must not hold up a boot.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "app/manifest.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Names = std::set<std::string>;
using Graph = std::map<std::string, Names>;

DependGraph Build(const Graph& graph) {
  DependGraph built;
  for (const auto& [name, dependencies] : graph) {
    built.AddVertex(name, dependencies);
  }
  return built;
}

// Walks as the bring-up does. Gives up where a walk doesn't get on.
std::vector<Names> Rounds(DependGraph graph) {
  std::vector<Names> rounds;
  while (!graph.IsEmpty()) {
    rounds.push_back(graph.GetNoDependVertices());
    if (rounds.back().empty()) {
      ADD_FAILURE() << "the walk stands still";
      break;
    }
    for (const std::string& name : rounds.back()) {
      graph.Pop(name);
    }
  }
  return rounds;
}

TEST(DependGraph, HandsOutRoundByRoundAndLogsCircles) {
  const struct {
    const char* name;
    Graph graph;
    std::vector<Names> rounds;
    std::vector<std::string> lines;
  } cases[] = {
      {"empty", {}, {}, {}},
      {"diamond",
       {{"a", {}}, {"b", {"a"}}, {"c", {"a"}}, {"d", {"b", "c"}}, {"e", {}}},
       {{"a", "e"}, {"b", "c"}, {"d"}},
       {}},
      {"one upon itself", {{"a", {"a"}}, {"b", {}}}, {{"b"}, {"a"}}, {"E a -> a"}},
      {"circle with a tail on either side",
       {{"a", {"b"}}, {"b", {"c", "x"}}, {"c", {"a"}}, {"x", {}}, {"y", {"a"}}, {"z", {"y"}}},
       {{"x"}, {"a", "b", "c"}, {"y"}, {"z"}},
       {"E a -> b -> c -> a"}},
      {"two circles and a bridge between them",
       {{"a", {"b"}}, {"b", {"a"}}, {"m", {"a"}}, {"c", {"d", "m"}}, {"d", {"c"}}},
       {{"a", "b", "c", "d"}, {"m"}},
       {"E a -> b -> a", "E c -> d -> c"}},
      {"two circles that share a vertex",
       {{"a", {"b", "c"}}, {"b", {"a"}}, {"c", {"a"}}},
       {{"a", "b", "c"}},
       {"E a -> b -> a", "E c -> a -> c"}},
      {"a name that never was added", {{"a", {"ghost"}}, {"b", {"a"}}}, {{"a", "b"}}, {}},
  };
  for (const auto& c : cases) {
    PmTest::LogCapture log;
    EXPECT_EQ(Rounds(Build(c.graph)), c.rounds) << c.name;
    std::vector<std::string> lines = log.Take();
    EXPECT_THAT(lines, ::testing::UnorderedElementsAreArray(c.lines)) << c.name;
  }
}

// A recursive search would run out of stack here, a quadratic one out of patience.
TEST(DependGraph, LongChainAndLongCircle) {
  constexpr int kLength = 50000;
  const auto name = [](int i) { return "app" + std::to_string(100000 + i); };
  DependGraph chain;
  DependGraph circle;
  for (int i = 0; i < kLength; ++i) {
    chain.AddVertex(name(i), i == 0 ? Names{} : Names{name(i - 1)});
    circle.AddVertex(name(i), {name((i + 1) % kLength)});
  }
  EXPECT_THAT(Rounds(chain), SizeIs(kLength));
  PmTest::LogCapture log;
  EXPECT_THAT(circle.GetNoDependVertices(), SizeIs(kLength));
  const std::vector<std::string> lines = log.Take();
  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_LT(lines[0].size(), 1000U);
  EXPECT_THAT(lines[0], ::testing::EndsWith("-> app100031 -> (49968 more) -> app100000"));
}

TEST(DependGraph, CirclesInTheLogAreBoundedAndToldOnce) {
  DependGraph graph;
  for (int i = 0; i < 1000; ++i) {
    const std::string name = std::to_string(i);
    graph.AddVertex(name, {name});
  }
  PmTest::LogCapture log;
  EXPECT_THAT(graph.GetNoDependVertices(), SizeIs(1000));
  EXPECT_THAT(log.Take(), SizeIs(101));
  graph.Pop("7");
  EXPECT_THAT(graph.GetNoDependVertices(), SizeIs(999));
  EXPECT_THAT(log.Take(), IsEmpty());
}

TEST(StartGraph, HoldsWhatTheLastParsesFoundAmongTheGivenNames) {
  const PmTest::TempFolder folder;
  const PmTest::LogCapture log;
  ParseAndDepend& library = ParseAndDepend::Instance();
  const auto parse = [&](const std::string& text) {
    std::vector<ApplicationManifest> manifests;
    return library.ParseYaml(ParamType::kDefault, folder.Write("g.yaml", text), manifests, {});
  };
  const auto rounds = [&](const std::vector<std::string>& names) {
    DependGraph graph;
    library.GetStartGraph(names, graph);
    return Rounds(graph);
  };
  const std::string keys = ", binPath: /b, uid: 1, gid: 1, dependList: ";
  ASSERT_EQ(parse("applications:\n- {appName: sg1" + keys + "[sg2, sg3]}\n- {appName: sg2" + keys +
                  "[sg3]}\n- {appName: sg3" + keys + "[]}\n"),
            0);
  EXPECT_THAT(rounds({"sg1", "sg2", "sg3"}), ElementsAre(Names{"sg3"}, Names{"sg2"}, Names{"sg1"}));
  // What isn't among the names holds nobody back, be it known or not.
  EXPECT_THAT(rounds({"sg1", "sg2", "sg1"}), ElementsAre(Names{"sg2"}, Names{"sg1"}));
  EXPECT_THAT(rounds({"sg1", "sg-stranger"}), ElementsAre(Names{"sg-stranger", "sg1"}));
  EXPECT_THAT(rounds({}), IsEmpty());
  // A broken file changes nothing; a good one replaces what it names.
  ASSERT_NE(parse("applications:\n- {appName: sg2" + keys + "[]}\n- {appName: sg1}\n"), 0);
  EXPECT_THAT(rounds({"sg2", "sg3"}), ElementsAre(Names{"sg3"}, Names{"sg2"}));
  ASSERT_EQ(parse("applications:\n- {appName: sg2" + keys + "[]}\n"), 0);
  EXPECT_THAT(rounds({"sg2", "sg3"}), ElementsAre(Names{"sg2", "sg3"}));
}

}  // namespace
}  // namespace ProcMgr
