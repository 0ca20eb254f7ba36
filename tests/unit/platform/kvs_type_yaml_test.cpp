// The reader of the configuration files.
#include "platform/manifest/kvs_type_yaml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
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
