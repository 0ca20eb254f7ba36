#include "message/upload_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "tests/support/taken_log.h"
#include "tests/unit/message/fake_nexio.h"

namespace PmUpload {
namespace {

using PmTest::TakeLog;
using ProcMgr::NexioRequest;
using ProcMgr::Test::FakeNexio;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class UploadServiceTest : public ::testing::Test {
 protected:
  UploadServiceTest() {
    fake_.Reset();
    EXPECT_TRUE(RegXCallBack({[this](const LoadAppInfo& info, int fd) {
                                taken_.push_back(info.pidAppName + '@' + std::to_string(fd));
                                return accepts_;
                              },
                              [] {
                                return std::vector<std::string>{"g1", "g2"};
                              },
                              [](const std::string& path) { return path == "/listed"; }}));
    (void)TakeLog();
  }

  // Sends `text` in a frame and yields the response's text; "silence" if there is none.
  std::string Ask(std::string_view text) {
    UploadMsg msg;
    msg.size = text.size();
    std::memcpy(msg.data, text.data(), text.size());
    return Ask(&msg, sizeof(msg));
  }

  std::string Ask(const void* data, std::uint32_t size) {
    const NexioRequest request{77, data, size};
    PmHandleRequest(9, &request);
    const auto sent = std::exchange(fake_->sent, {});
    if (sent.empty()) {
      return "silence";
    }
    EXPECT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].fd, 9);
    EXPECT_EQ(sent[0].seq, 77U);
    return sent[0].data;
  }

  FakeNexio& fake_ = FakeNexio::Instance();
  bool accepts_ = true;
  std::vector<std::string> taken_;
};

TEST_F(UploadServiceTest, CreatesItsServerForAThousand) {
  EXPECT_EQ(fake_->serverParam.maxClients, 1000U);
  fake_->serverResult = -1;
  EXPECT_FALSE(RegXCallBack({}));
}

TEST_F(UploadServiceTest, Answers) {
  EXPECT_EQ(Ask("a#/bin/a#12#34#0#0#0#0#"), "1#0#2#g1#g2#0#");
  EXPECT_EQ(Ask("a#/listed#12#34#0#0#1#1#"), "1#1#1#g2#0#");
  accepts_ = false;
  EXPECT_EQ(Ask("b#/bin/b#12#34#0#0#0#2#"), "0#0#0#0#");
  // More received than there are: the callback has run by then, and the answer is empty.
  EXPECT_EQ(Ask("c#/bin/c#12#34#0#0#0#3#"), "");
  EXPECT_THAT(taken_, ElementsAre("a@9", "a@9", "b@9", "c@9"));
}

TEST_F(UploadServiceTest, BadRequestsMeetSilence) {
  std::vector<char> bytes(4000);
  EXPECT_EQ(Ask(nullptr, 3968), "silence");
  EXPECT_EQ(Ask(bytes.data(), 3984), "silence");
  const std::uint64_t tooLong = 3961;
  std::memcpy(bytes.data(), &tooLong, sizeof(tooLong));
  EXPECT_EQ(Ask(bytes.data(), 3968), "silence");
  EXPECT_EQ(Ask("a#/b#1#2#1025#"), "silence");
  EXPECT_THAT(taken_, IsEmpty());
}

TEST_F(UploadServiceTest, ABrokenConnectionIsClosed) {
  PmHandleRequest(9, nullptr);
  EXPECT_EQ(fake_->closeCalls, std::vector<int>{9});
}

}  // namespace
}  // namespace PmUpload
