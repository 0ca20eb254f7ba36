#include "message/upload_msg.h"

#include "tests/support/taken_log.h"
#include "tests/support/test.h"

namespace PmUpload {
namespace {

using PmTest::TakeLog;
using ::testing::ElementsAre;

UploadMsg Request(std::string_view text) {
  UploadMsg msg;
  std::memset(msg.data, '#', sizeof(msg.data));
  msg.size = text.size();
  std::memcpy(msg.data, text.data(), text.size());
  return msg;
}

TEST(UploadRequest, IsThisText) {
  UploadMsg msg;
  LoadAppInfo info{"/bin/a", "a", {}, {}, 12, 34, false, 0};
  ASSERT_TRUE(PackInfoRequest(info, msg));
  EXPECT_EQ(std::string(msg.data, msg.size), "a#/bin/a#12#34#0#0#0#0#");
  info = {"/b", "n", {"g1", "g2"}, {"h"}, -1, 4294967295U, true, 438};
  ASSERT_TRUE(PackInfoRequest(info, msg));
  EXPECT_EQ(std::string(msg.data, msg.size), "n#/b#-1#4294967295#2#g1#g2#1#h#1#438#");

  LoadAppInfo read{"x", "x", {"x"}, {"x"}, 1, 1, false, 1};
  ASSERT_TRUE(UnPackInfoRequest(&msg, read));
  EXPECT_EQ(read.pidAppName, "n");
  EXPECT_EQ(read.binPath, "/b");
  EXPECT_EQ(read.pid, -1);
  EXPECT_EQ(read.gid, 4294967295U);
  EXPECT_THAT(read.rwGroups, ElementsAre("g1", "g2"));
  EXPECT_THAT(read.allocGroups, ElementsAre("h"));
  EXPECT_TRUE(read.alreadyReported);
  EXPECT_EQ(read.receivedMemGroupsNum, 438U);
}

TEST(UploadRequest, EveryShorterTextIsRefused) {
  const std::string text = "n#/b#-1#7#2#g1#g2#1#h#1#438#";
  for (std::size_t size = 0; size < text.size(); ++size) {
    const UploadMsg msg = Request(std::string_view(text).substr(0, size));
    LoadAppInfo info;
    EXPECT_FALSE(UnPackInfoRequest(&msg, info)) << size;
    EXPECT_EQ(TakeLog().size(), 1U) << size;
  }
}

TEST(UploadRequest, RefusesThese) {
  for (const char* const text : {"a#/b#1#2#1025#", "a#/b#1#2#0#1025#", "a#/b#1#2#0#-1#",
                                 "a#/b#1#2#1024#g#", "a#/b#x#2#0#0#0#0#", "a#/b#1#2#0#0#2#0#"}) {
    const UploadMsg msg = Request(text);
    LoadAppInfo info;
    EXPECT_FALSE(UnPackInfoRequest(&msg, info)) << text;
    EXPECT_EQ(TakeLog().size(), 1U) << text;
  }
  LoadAppInfo tooMany;
  tooMany.rwGroups.resize(1025);
  UploadMsg msg;
  EXPECT_FALSE(PackInfoRequest(tooMany, msg));
}

TEST(UploadRequest, FillsAFrameToItsLastByte) {
  LoadAppInfo info;
  info.binPath = std::string(3960 - std::strlen("##0#0#0#0#0#0#"), 'p');
  UploadMsg msg;
  EXPECT_TRUE(PackInfoRequest(info, msg));
  EXPECT_EQ(msg.size, 3960U);
  LoadAppInfo read;
  EXPECT_TRUE(UnPackInfoRequest(&msg, read));
  EXPECT_EQ(read.binPath, info.binPath);
  info.binPath += 'p';
  EXPECT_FALSE(PackInfoRequest(info, msg));
}

TEST(UploadResponse, IsThisText) {
  struct Case {
    const char* name;
    std::vector<std::string> groups;
    std::uint64_t received;
    std::string text;
  };
  const Case cases[] = {
      {"all received", {"a", "b"}, 2, "1#0#0#0#"},
      {"the rest", {"a", "bc", "d"}, 1, "1#0#2#bc#d#0#"},
      {"longest name", {std::string(3941, 'n'), "b"}, 0, "1#0#1#" + std::string(3941, 'n') + "#1#"},
      {"a name that never fits", {std::string(3942, 'n'), "b"}, 0, "1#0#0#2#"},
      {"more received than there are", {"a"}, 2, "unchanged"},
      {"too many groups", std::vector<std::string>(1025, "g"), 0, "unchanged"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    std::string text = "unchanged";
    PackResponseToPmupload(true, false, test.groups, test.received, text);
    EXPECT_EQ(text, test.text);
  }
  std::string text;
  PackResponseToPmupload(false, true, {"ab"}, 0, text);
  EXPECT_EQ(text, "0#1#1#ab#0#");
}

TEST(UploadResponse, EveryShorterTextIsRefused) {
  const std::string text = "1#0#2#ab#c#12#";
  UploadResponse response;
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_FALSE(UnPackResponse(text.substr(0, size), response)) << size;
  }
  ASSERT_TRUE(UnPackResponse(text, response));
  EXPECT_TRUE(response.result && !response.inWhiteList);
  EXPECT_THAT(response.groups, ElementsAre("ab", "c"));
  EXPECT_EQ(response.stillToCome, 12U);
  EXPECT_FALSE(UnPackResponse("2#0#0#0#", response));
  EXPECT_FALSE(UnPackResponse("1#0#18446744073709551615#a#", response));
}

}  // namespace
}  // namespace PmUpload
