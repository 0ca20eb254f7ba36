// The reader of the configuration files.
#include "platform/manifest/kvs_type_yaml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_folder.h"

namespace ProcMgr {
namespace {

using ::testing::ElementsAre;

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

TEST_F(KvsTypeYamlTest, ScalarsReadAsWhatTheyAre) {
  const struct {
    const char* value;
    std::optional<std::string> text;
    std::optional<bool> flag;
    std::optional<std::uint64_t> number;
  } cases[] = {
      {"60", "60", {}, 60},
      {"\"60\"", "60", {}, 60},
      {"007", "007", {}, 7},
      {"0x10", "0x10", {}, {}},
      {"-5", "-5", {}, {}},
      {"1.5", "1.5", {}, {}},
      {"18446744073709551615", "18446744073709551615", {}, 18446744073709551615ULL},
      {"18446744073709551616", "18446744073709551616", {}, {}},
      {"true", "true", true, {}},
      {"false", "false", false, {}},
      {"\"true\"", "true", {}, {}},
      {"yes", "yes", {}, {}},
      {"on", "on", {}, {}},
      {"\"\"", "", {}, {}},
      {"", {}, {}, {}},
      {"~", {}, {}, {}},
      {"[1]", {}, {}, {}},
      {"{a: 1}", {}, {}, {}},
  };
  for (const auto& c : cases) {
    Load(std::string("key: ") + c.value + "\n");
    const KvsTypeYaml sub = Sub("key");
    std::string text = "untouched";
    EXPECT_EQ(sub.GetString(text), c.text.has_value()) << c.value;
    EXPECT_EQ(text, c.text.value_or("untouched")) << c.value;
    for (bool flag : {true, false}) {
      const bool before = flag;
      EXPECT_EQ(sub.GetBool(flag), c.flag.has_value()) << c.value;
      EXPECT_EQ(flag, c.flag.value_or(before)) << c.value;
    }
    std::uint64_t number = 77;
    EXPECT_EQ(sub.GetUint64(number), c.number.has_value()) << c.value;
    EXPECT_EQ(number, c.number.value_or(77)) << c.value;
  }
}

// A group list may be written as a mapping or as a sequence of mappings of one key.
TEST_F(KvsTypeYamlTest, BothFormsOfAListGiveTheirKeys) {
  for (const char* const text : {"g: {one: {mem_size: 1}, two: {mem_size: 2}}\n",
                                 "g:\n  - one: {mem_size: 1}\n  - two:\n      mem_size: 2\n"}) {
    Load(text);
    std::vector<KvsTypeYaml> list;
    ASSERT_TRUE(Sub("g").GetArray(list)) << text;
    std::vector<std::pair<std::string, std::uint64_t>> found;
    for (const KvsTypeYaml& node : list) {
      KvsTypeYaml size;
      std::uint64_t number = 0;
      EXPECT_TRUE(node.GetSubKvs("mem_size", size) && size.GetUint64(number)) << text;
      found.emplace_back(node.GetKey(), number);
    }
    EXPECT_THAT(found, ElementsAre(std::pair("one", 1U), std::pair("two", 2U))) << text;
  }
  Load("g: [a, {b: 1, c: 2}, [d]]\n");
  std::vector<KvsTypeYaml> list;
  ASSERT_TRUE(Sub("g").GetArray(list));
  ASSERT_EQ(list.size(), 3U);
  for (const KvsTypeYaml& node : list) {
    EXPECT_EQ(node.GetKey(), "");
  }
}

TEST_F(KvsTypeYamlTest, WrongKindsLeaveOutputsAlone) {
  Load("list: [a, 2, \"c d\"]\nmixed: [a, [b]]\nword: w\n");
  std::vector<std::string> texts = {"before"};
  std::vector<KvsTypeYaml> nodes(2);
  KvsTypeYaml sub = Sub("word");
  EXPECT_FALSE(Sub("mixed").GetSequenceString(texts));
  EXPECT_FALSE(Sub("word").GetSequenceString(texts));
  EXPECT_FALSE(root_.GetSequenceString(texts));
  EXPECT_FALSE(Sub("word").GetArray(nodes));
  EXPECT_FALSE(root_.GetSubKvs("none", sub));
  EXPECT_FALSE(Sub("list").GetSubKvs("a", sub));
  EXPECT_FALSE(KvsTypeYaml().GetSubKvs("a", sub));
  EXPECT_FALSE(KvsTypeYaml().GetArray(nodes));
  EXPECT_THAT(texts, ElementsAre("before"));
  EXPECT_EQ(nodes.size(), 2U);
  EXPECT_EQ(sub.GetKey(), "word");
  EXPECT_TRUE(Sub("list").GetSequenceString(texts));
  EXPECT_THAT(texts, ElementsAre("a", "2", "c d"));
}

TEST_F(KvsTypeYamlTest, NodesOutliveTheirReader) {
  KvsTypeYaml kept;
  {
    KvsTypeYaml reader;
    ASSERT_TRUE(reader.InitYamlNode(folder_.Write("k.yaml", "a: {b: deep}\n")));
    ASSERT_TRUE(reader.GetSubKvs("a", reader));
    EXPECT_EQ(reader.GetKey(), "a");
    ASSERT_TRUE(reader.GetSubKvs("b", kept));
  }
  std::string text;
  EXPECT_TRUE(kept.GetString(text));
  EXPECT_EQ(text, "deep");
}

TEST_F(KvsTypeYamlTest, BrokenFileLeavesTheReaderWhereItStands) {
  Load("a: b\n");
  EXPECT_FALSE(root_.InitYamlNode(folder_.Path("none")));
  EXPECT_FALSE(root_.InitYamlNode(folder_.Write("bad.yaml", "a: [b\n")));
  EXPECT_FALSE(root_.InitYamlNode(folder_.Write("empty.yaml", "")));
  EXPECT_FALSE(root_.InitYamlNode(folder_.Path("")));
  EXPECT_EQ(Sub("a").GetKey(), "a");
}

}  // namespace
}  // namespace ProcMgr
