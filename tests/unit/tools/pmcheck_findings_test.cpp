// What the checker finds in files that the daemon would take, or takes in part.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "sandbox/wait.h"
#include "tests/unit/tools/pmcheck_fixture.h"

namespace {

using PmTest::Brief;
using PmTest::Line;
using PmTest::PmCheck;
using PmTest::Result;
using ::testing::HasSubstr;

std::string Reporting(const std::string& name) {
  return "isReporting: true, envArgv: {PROC_NAME: " + name + "}";
}

// The processor time of the programs that have ended: what else the machine does doesn't count.
double ChildrenSeconds() {
  rusage usage{};
  EXPECT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

TEST_F(PmCheck, StrictTakesWarningsForFaults) {
  folder_.Write("warned.yaml", "applications:\n" + Line("d", "isReporting: true"));
  EXPECT_EQ(Run("warned.yaml").status, 0);
  EXPECT_EQ(Run("--strict warned.yaml").status, 1);
}

TEST_F(PmCheck, WhatHangsOnACircleIsInNoRound) {
  folder_.Write("circle.yaml", "applications:\n" + Line("a", "dependList: [b]") +
                                   Line("b", "dependList: [a]") + Line("c", "dependList: [a]") +
                                   Line("d", "dependList: [d]") + Line("e", ""));
  const Result result = Run("circle.yaml");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "circle.yaml: 5 applications\nround 1: e\nnever: a b c d\n");
  EXPECT_THAT(result.err, HasSubstr("circle.yaml:5:60: error: d -> d: "));
}

TEST_F(PmCheck, GraphShowsOrderReportsAndFaults) {
  folder_.Write("a.yaml", "applications:\n" + Line("a", Reporting("a")) + Line("b", "") +
                              Line("'c<\"'", "dependList: [a, b, ghost]") +
                              Line("d", "arguments: ['|'], " + Reporting("d")));
  const Result result = Run("--graph dot a.yaml");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, R"(digraph "a.yaml" {
  rankdir=LR;
  node [shape=box];
  "a" [peripheries=2];
  "b";
  "c<\"" [color=red];
  "d" [peripheries=2, color=red];
  "ghost" [style=dashed, color=red];
  { rank=same; "a"; "b"; "d"; }
  { rank=same; "c<\""; }
  "a" -> "c<\"";
  "b" -> "c<\"" [color=orange];
  "ghost" -> "c<\"" [color=red];
}
)");
  const std::string svg = Run("--graph svg a.yaml").out;
  const auto expectOnce = [&svg](const std::string& text) {
    EXPECT_TRUE(svg.find(text) != std::string::npos && svg.find(text) == svg.rfind(text)) << text;
  };
  expectOnce("<g><title>a</title><rect x=\"214\" y=\"60\" width=\"72\" height=\"24\"/><rect");
  expectOnce("<g class=\"red lost\"><title>ghost");
  expectOnce(
      "<g class=\"red\"><title>c&lt;&quot;\n&quot;c&lt;&quot;&quot; depends on &quot;b&quot;");
  expectOnce("<path class=\"unmet\"");
  expectOnce("<path class=\"unreported\"");
  expectOnce("<path d=\"M 286,72 C 331,72 331,72 376,72");
  for (const char* const wrong : {"dot --format json a.yaml", "svg a.yaml a.yaml"}) {
    EXPECT_EQ(Run(std::string("--graph ") + wrong).status, 2) << wrong;
  }
}

TEST_F(PmCheck, SarifNamesRulePlaceAndLevel) {
  folder_.Write("warned.yaml", "applications:\n" + Line("d", "isReporting: true"));
  const auto document = nlohmann::json::parse(Run("--format sarif warned.yaml").out);
  EXPECT_EQ(document.at("version"), "2.1.0");
  const auto& run = document.at("runs").at(0);
  const auto& result = run.at("results").at(0);
  EXPECT_EQ(result.at("level"), "warning");
  EXPECT_EQ(result.at("locations").at(0).at("physicalLocation").at("artifactLocation").at("uri"),
            "warned.yaml");
  const auto& rules = run.at("tool").at("driver").at("rules");
  EXPECT_TRUE(std::any_of(rules.begin(), rules.end(), [&result](const auto& rule) {
    return rule.at("id") == result.at("ruleId");
  }));
}

// Every service has a fault of each of two kinds, one of which needs the search for a near name.
TEST_F(PmCheck, AThousandServicesTakeASecond) {
  std::string text = "applications:\n";
  for (int i = 0; i < 1000; ++i) {
    const std::string number = std::to_string(i);
    text += Line("service_with_a_long_name_" + number,
                 "isReporting: true, dependList: [servize_with_a_long_name_" + number + "]");
  }
  folder_.Write("large.yaml", text);
  const double before = ChildrenSeconds();
  const Result result = Run("--format json large.yaml");
#ifdef PM_SANITIZED
  constexpr double kMostSeconds = 7;
#else
  constexpr double kMostSeconds = 1;
#endif
  EXPECT_LT(ChildrenSeconds() - before, kMostSeconds * PmSandbox::PatienceFactor());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Brief(result.out).size(), 2000U);
}

}  // namespace
