// Frames as bytes: how texts are cut into them, and the bodies that are binary.
#include "tests/unit/message/frames.h"
#include "message/serialization.h"
#include "tests/support/taken_log.h"
#include "tests/support/test.h"

namespace ProcMgr::Serialization {
namespace {

using Message::RequestType;
using PmTest::TakeLog;
using Test::Body;

std::string Digest(const Message::RequestMsg& frame) {
  const std::string body = Body(frame);
  const std::size_t hash = body.find('#');
  return body.substr(0, hash + 1) + std::to_string(body.size() - hash - 1);
}

TEST(ProcMgrCombinePiecesMsg, CutsWindows) {
  struct Case {
    const char* name;
    std::vector<std::size_t> lengths;  // In the order in which the caller gives them.
    std::vector<std::string> bodies;   // Without the fill of long items: count and length.
    bool warns;
  };
  const Case cases[] = {
      {"second window", {2000, 1955, 1}, {"2#1956", "1#2000"}, false},
      {"exactly full", {1955, 2000}, {"2#3955"}, false},
      {"one byte more", {1956, 2000}, {"1#1956", "1#2000"}, false},
      {"oversize first of several", {3956, 3957, 3955, 7}, {"1#7", "1#3955"}, true},
      {"only oversize", {3956}, {}, true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    std::vector<PackedItem> packed;
    for (const std::size_t length : test.lengths) {
      packed.emplace_back(length, std::string(length, 'x'));
    }
    PieceList pieces;
    EXPECT_TRUE(ProcMgrCombinePiecesMsg(RequestType::TERM_APP, packed, pieces));
    std::vector<std::string> bodies;
    for (const Message::RequestMsg& frame : pieces) {
      EXPECT_EQ(frame.type, RequestType::TERM_APP);
      bodies.push_back(Digest(frame));
    }
    EXPECT_EQ(bodies, test.bodies);
    EXPECT_EQ(TakeLog().size(), test.warns ? 1U : 0U);
  }
}

TEST(ProcMgrCombinePiecesMsg, OrdersByLengthThenText) {
  std::vector<PackedItem> none;
  std::vector<PackedItem> packed{{3, "bb#"}, {2, "z#"}, {3, "ba#"}, {1, "#"}};
  PieceList pieces;
  EXPECT_FALSE(ProcMgrCombinePiecesMsg(RequestType::START_APP, none, pieces));
  EXPECT_EQ(TakeLog().size(), 1U);
  EXPECT_TRUE(ProcMgrCombinePiecesMsg(RequestType::TERM_APP, packed, pieces));
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(Body(pieces[0]), "4##z#ba#bb#");
}

TEST(ProcMgrCombineMsg, LaysOutTheFrame) {
  PieceList pieces;
  ProcMgrCombineMsg(RequestType::LOAD_STARTUP_CFG, 1, "/a#0#", pieces);
  ASSERT_EQ(pieces.size(), 1U);
  std::string bytes(3984, '\0');
  bytes[0] = 6;
  bytes[8] = 7;
  std::memcpy(bytes.data() + 16, "1#/a#0#", 7);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(pieces.data()), sizeof(pieces[0])), bytes);
}

TEST(ProcMgrCombineMsg, AppendsTheFrameThatDoesNotFit) {
  PieceList pieces;
  ProcMgrCombineMsg(RequestType::TERM_APP, 1, std::string(3963, 'x'), pieces);
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].size, 3965U);
  EXPECT_EQ(TakeLog().size(), 1U);
}

using Test::Frame;
using Names = std::vector<std::string>;

const std::string kQueryFailed = "E PROCMGR: DeserializeMessage QUERY_APP_STATE fail.";

Names Unpacked(const Message::RequestMsg& frame) {
  Names names{"before"};
  ProcMgrUnpackQueryAppState(&frame, names);
  return names;
}

TEST(HeartMsg, IsTwoWords) {
  Message::RequestMsg frame;
  ProcMgrPackHeartMsg({0x0102030405060708, 0x1112131415161718}, frame);
  EXPECT_EQ(frame.type, RequestType::HEART_MSG);
  EXPECT_EQ(Body(frame), "\x08\x07\x06\x05\x04\x03\x02\x01\x18\x17\x16\x15\x14\x13\x12\x11");
  frame.size = 0;  // Not looked at.
  Message::HeartMsg info;
  ProcMgrUnpackHeartMsg(&frame, info);
  EXPECT_EQ(info.index, 0x0102030405060708U);
  EXPECT_EQ(info.sendTimeMs, 0x1112131415161718U);
}

TEST(QueryAppState, WritesTheseBytesUpToTheFramesLast) {
  Message::RequestMsg frame;
  ASSERT_TRUE(ProcMgrPackQueryAppState({"ab", ""}, frame));
  EXPECT_EQ(frame.type, RequestType::QUERY_APP_STATE);
  EXPECT_EQ(Body(frame), "\2\0\0\0\2\0\0\0ab\0\0\0\0"s);
  EXPECT_TRUE(ProcMgrPackQueryAppState({std::string(3956, 'n')}, frame));
  EXPECT_EQ(frame.size, 3964U);
  EXPECT_EQ(Unpacked(frame), Names{std::string(3956, 'n')});
  EXPECT_FALSE(ProcMgrPackQueryAppState({std::string(3957, 'n')}, frame));
}

TEST(QueryAppState, ReadsTheseBodies) {
  struct Case {
    const char* name;
    std::string body;
    Names names;
    bool parses;
  };
  const Case cases[] = {
      {"two names", "\2\0\0\0\1\0\0\0a\2\0\0\0bc"s, {"a", "bc"}, true},
      {"an empty name", "\1\0\0\0\0\0\0\0"s, {""}, true},
      {"bytes behind the last name", "\1\0\0\0\1\0\0\0abc"s, {"a"}, true},
      {"more names than bytes", "\5\0\0\0\0\0\0\0"s, {}, false},
      {"a huge count", "\xff\xff\xff\xff\0\0\0\0"s, {}, false},
      {"a huge length", "\1\0\0\0\xff\xff\xff\xff"s, {}, false},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(Unpacked(Frame(RequestType::QUERY_APP_STATE, test.body)), test.names);
    EXPECT_EQ(TakeLog(), test.parses ? Names{} : Names{kQueryFailed});
  }
}

TEST(QueryAppState, EveryShorterBodyIsRefused) {
  const std::string body = "\2\0\0\0\1\0\0\0a\2\0\0\0bc"s;
  for (std::size_t size = 0; size < body.size(); ++size) {
    EXPECT_THAT(Unpacked(Frame(RequestType::QUERY_APP_STATE, body.substr(0, size))), IsEmpty());
    EXPECT_EQ(TakeLog(), Names{kQueryFailed}) << size;
  }
  // One that claims more than a frame has.
  Message::RequestMsg frame = Frame(RequestType::QUERY_APP_STATE, "\0\0\0\0"s);
  frame.size = 3965;
  EXPECT_THAT(Unpacked(frame), IsEmpty());
  EXPECT_THAT(TakeLog(), testing::Contains(kQueryFailed));
}

TEST(AppDetailStatus, WritesAndReadsTheseBytes) {
  const std::string body = "\2\0\0\0\1\0\0\0a\1\0\0\0\2\0\0\0bc\xff\xff\xff\xff"s;
  const std::map<std::string, int> status{{"bc", -1}, {"a", 1}};
  Message::RequestMsg frame;
  ASSERT_TRUE(ProcMgrPackAppDetailStatus(status, frame));
  EXPECT_EQ(frame.type, RequestType::APP_DETAIL_STATUS_REPORT);
  EXPECT_EQ(Body(frame), body);

  std::map<std::string, int> read;
  EXPECT_TRUE(ProcMgrUnpackAppDetailStatus(&frame, read));
  EXPECT_EQ(read, status);
  for (std::size_t size = 0; size < body.size(); ++size) {
    SCOPED_TRACE(size);
    frame = Frame(RequestType::APP_DETAIL_STATUS_REPORT, body.substr(0, size));
    EXPECT_FALSE(ProcMgrUnpackAppDetailStatus(&frame, read));
    EXPECT_EQ(read, status);
  }
  EXPECT_TRUE(ProcMgrPackAppDetailStatus({{std::string(3952, 'n'), 0}}, frame));
  EXPECT_EQ(frame.size, 3964U);
  EXPECT_FALSE(ProcMgrPackAppDetailStatus({{std::string(3953, 'n'), 0}}, frame));
}

}  // namespace
}  // namespace ProcMgr::Serialization
