// Patterns: where an expression ends, what fits, what is broken, and what it costs.
#include "platform/manifest/pattern.h"

#include <gtest/gtest.h>

#include <string>

#include "app/manifest.h"

namespace ProcMgr {
namespace {

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

// More of them than are kept compiled, asked in turn as a look for a name does.
TEST(Pattern, AnswersAreTheSameWhateverIsKept) {
  const ParseAndDepend& library = ParseAndDepend::Instance();
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 1200; ++i) {
      const std::string pattern = "${[a-z]+}" + std::to_string(i);
      EXPECT_TRUE(library.IsDynamicParaMatch(pattern, "app" + std::to_string(i))) << pattern;
      EXPECT_FALSE(library.IsDynamicParaMatch(pattern, "0" + std::to_string(i))) << pattern;
    }
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

}  // namespace
}  // namespace ProcMgr
