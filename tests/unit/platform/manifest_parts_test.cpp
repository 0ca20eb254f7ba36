// What stands on service files and beside them: the start graph, patterns, and the reader of the
// configuration files.
#include "app/manifest.h"
#include "platform/manifest/kvs_type_yaml.h"
#include "platform/manifest/pattern.h"
#include "tests/support/log_capture.h"
#include "tests/support/test.h"

namespace ProcMgr {
namespace {

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
  EXPECT_THAT(Rounds(std::move(chain)), SizeIs(kLength));
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
    return Rounds(std::move(graph));
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

TEST(Pattern, WholeValueFits) {
  const struct {
    const char* pattern;
    const char* value;
    bool fits;
  } cases[] = {
      // Without an expression: the value itself.
      {"plain", "plain", true},
      {"a.c", "abc", false},
      {"", "", true},
      {"$HOME", "$HOME", true},
      // What isn't closed is literal.
      {"${a", "${a", true},
      {"${a\\}", "${a\\}", true},
      // One expression.
      {"${[0-9]{1,2}}", "42", true},
      {"${[0-9]{1,2}}", "42\n", false},
      {"${}", "", true},
      {"${a|b}", "ab", false},
      // The alternatives end with the expression.
      {"x${a|b}y", "xa", false},
      {"x${a|b}y", "by", false},
      // Literal text around it has no operators.
      {"/opt.d/${\\w+}.so", "/opt.d/cam.so", true},
      {"/opt.d/${\\w+}.so", "/opt.d/camxso", false},
      {"(${a})", "(a)", true},
      {"$${a}", "$a", true},
      // Several, and openings that close inside of others.
      {"${a+}-${b+}", "aa-bbb", true},
      {"${ ${x}", "${ x", true},
      {"${\\$\\{x\\}}", "${x}", true},
      {"${[^\\}]+}", "abc", true},
      {"${(?i)ab}c", "ABC", false},
      // A pattern fits itself only if its expressions say so.
      {"${a}", "${a}", false},
  };
  const ParseAndDepend& library = ParseAndDepend::Instance();
  for (const auto& c : cases) {
    EXPECT_EQ(library.IsDynamicParaMatch(c.pattern, c.value), c.fits)
        << c.pattern << " against " << c.value;
  }
}

TEST(Pattern, BrokenOneIsAPatternThatNeverFits) {
  const ParseAndDepend& library = ParseAndDepend::Instance();
  for (const std::string pattern : {"${[}", "${(}", "${)}", "${*}", "${a)(b}", "${a}${[}",
                                    "${(?=a)}", "${\\}}${(}", "${a{2000}}", "${[^}]+}"}) {
    EXPECT_TRUE(library.IsDynamicPara(pattern)) << pattern;
    EXPECT_TRUE(Manifest::FindBrokenExpression(pattern)) << pattern;
    for (const std::string& value : {pattern, std::string("ab"), std::string()}) {
      EXPECT_FALSE(library.IsDynamicParaMatch(pattern, value)) << pattern << " against " << value;
    }
  }
  for (const std::string text : {"", "plain", "${a", "}${", "$a}", "${a\\}", "a[b"}) {
    EXPECT_FALSE(library.IsDynamicPara(text)) << text;
    EXPECT_FALSE(Manifest::FindBrokenExpression(text)) << text;
  }
}

// A backtracking matcher needs longer than the universe has for these.
TEST(Pattern, MatchingIsLinear) {
  const ParseAndDepend& library = ParseAndDepend::Instance();
  const std::string value = std::string(200000, 'a') + "b";
  EXPECT_FALSE(library.IsDynamicParaMatch("${(a*)*}", value));
  EXPECT_FALSE(library.IsDynamicParaMatch("${(a|aa)+}", value));
  EXPECT_FALSE(library.IsDynamicParaMatch("${(.*)(.*)(.*)(.*)c}", value));
}

class KvsTypeYamlTest : public ::testing::Test {
 protected:
  // Stands root_ on the root of a file of this text.
  void Load(const std::string& text) {
    ASSERT_TRUE(root_.InitYamlNode(folder_.Write("k.yaml", text)));
  }

  KvsTypeYaml Sub(const std::string& key) {
    KvsTypeYaml sub;
    EXPECT_TRUE(root_.GetSubKvs(key, sub)) << key;
    return sub;
  }

  PmTest::TempFolder folder_;
  KvsTypeYaml root_;
};

TEST_F(KvsTypeYamlTest, FailuresLeaveOutputsAlone) {
  Load(
      "list: [a, 2, \"c d\"]\nmixed: [a, {b: 1, c: 2}, [d]]\nword: w\nquoted: \"true\"\nnull: ~\n");
  std::string text = "before";
  bool flag = false;
  std::uint64_t number = 77;
  std::vector<std::string> texts = {"before"};
  std::vector<KvsTypeYaml> nodes(2);
  KvsTypeYaml sub = Sub("word");
  for (const char* const key : {"null", "list"}) {
    EXPECT_FALSE(Sub(key).GetString(text));
    EXPECT_FALSE(Sub(key).GetUint64(number));
  }
  EXPECT_FALSE(Sub("quoted").GetBool(flag));
  EXPECT_FALSE(Sub("word").GetUint64(number));
  EXPECT_FALSE(Sub("mixed").GetSequenceString(texts));
  EXPECT_FALSE(root_.GetSequenceString(texts));
  EXPECT_FALSE(Sub("word").GetArray(nodes));
  EXPECT_FALSE(root_.GetSubKvs("none", sub));
  EXPECT_FALSE(Sub("list").GetSubKvs("a", sub));
  EXPECT_FALSE(KvsTypeYaml().GetSubKvs("a", sub));
  EXPECT_FALSE(KvsTypeYaml().GetArray(nodes));
  EXPECT_FALSE(root_.InitYamlNode(folder_.Write("bad.yaml", "a: [b\n")));
  EXPECT_EQ(text, "before");
  EXPECT_FALSE(flag);
  EXPECT_EQ(number, 77U);
  EXPECT_THAT(texts, ElementsAre("before"));
  EXPECT_EQ(nodes.size(), 2U);
  EXPECT_EQ(sub.GetKey(), "word");
  EXPECT_TRUE(Sub("list").GetSequenceString(texts));
  EXPECT_THAT(texts, ElementsAre("a", "2", "c d"));
  // What isn't a mapping of one key has no name.
  EXPECT_TRUE(Sub("mixed").GetArray(nodes));
  EXPECT_THAT(nodes, testing::SizeIs(3));
  EXPECT_THAT(nodes, testing::Each(testing::Property(&KvsTypeYaml::GetKey, "")));
}

TEST_F(KvsTypeYamlTest, NodesOutliveTheirReader) {
  KvsTypeYaml kept;
  {
    KvsTypeYaml reader;
    ASSERT_TRUE(reader.InitYamlNode(folder_.Write("k.yaml", "a: {b: deep}\n")));
    ASSERT_TRUE(reader.GetSubKvs("a", reader));
    ASSERT_TRUE(reader.GetSubKvs("b", kept));
  }
  std::string text;
  EXPECT_TRUE(kept.GetString(text));
  EXPECT_EQ(text, "deep");
}

}  // namespace
}  // namespace ProcMgr
