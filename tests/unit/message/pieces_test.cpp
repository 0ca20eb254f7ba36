#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "message/serialization.h"
#include "tests/unit/message/frames.h"
#include "tests/unit/message/taken_log.h"

namespace ProcMgr::Serialization {
namespace {

using Message::RequestType;
using Test::Body;
using Test::TakeLog;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

PackedItem Item(std::size_t length, char fill = 'x') {
  return {static_cast<unsigned int>(length), std::string(length, fill)};
}

struct WindowCase {
  const char* name;
  std::vector<std::size_t> lengths;  // In the order in which the caller gives them.
  std::vector<std::string> bodies;   // Without the fill of long items: count and length.
  bool warns;
};

std::string Digest(const Message::RequestMsg& frame) {
  const std::string body = Body(frame);
  const std::size_t hash = body.find('#');
  return body.substr(0, hash + 1) + std::to_string(body.size() - hash - 1);
}

TEST(ProcMgrCombinePiecesMsg, CutsWindows) {
  const WindowCase cases[] = {
      {"one record", {10}, {"1#10"}, false},
      {"second window", {2000, 1955, 1}, {"2#1956", "1#2000"}, false},
      {"exactly full", {1955, 2000}, {"2#3955"}, false},
      {"one byte more", {1956, 2000}, {"1#1956", "1#2000"}, false},
      {"longest item", {3955}, {"1#3955"}, false},
      {"oversize item", {100, 3958}, {"1#100"}, true},
      {"oversize first of several", {3956, 3957, 3955, 7}, {"1#7", "1#3955"}, true},
      {"only oversize", {3956}, {}, true},
  };
  for (const WindowCase& test : cases) {
    SCOPED_TRACE(test.name);
    std::vector<PackedItem> packed;
    for (const std::size_t length : test.lengths) {
      packed.push_back(Item(length));
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

TEST(ProcMgrCombinePiecesMsg, NamesTheOversizeItem) {
  std::vector<PackedItem> packed{Item(3958)};
  PieceList pieces;
  EXPECT_TRUE(ProcMgrCombinePiecesMsg(RequestType::START_APP, packed, pieces));
  EXPECT_THAT(TakeLog(), ElementsAre("W ProcMgrAgent : packedRequest=3958 bytes beyond the "
                                     "PM_PIPE_BUF_MAX!"));
}

TEST(ProcMgrCombinePiecesMsg, RefusesNothingToSend) {
  std::vector<PackedItem> packed;
  PieceList pieces;
  EXPECT_FALSE(ProcMgrCombinePiecesMsg(RequestType::START_APP, packed, pieces));
  EXPECT_THAT(pieces, IsEmpty());
  EXPECT_THAT(TakeLog(), ElementsAre("E CombinePiecesMsg failed: packedRequest is empty!!"));
}

TEST(ProcMgrCombinePiecesMsg, OrdersByLengthThenText) {
  std::vector<PackedItem> packed{{3, "bb#"}, {2, "z#"}, {3, "ba#"}, {1, "#"}};
  PieceList pieces;
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
  EXPECT_THAT(TakeLog(), ElementsAre("E ProcMgrCombineMsg failed memcpy_s failed: "
                                     "strSize=3965 bytes, ret=34"));
}

}  // namespace
}  // namespace ProcMgr::Serialization
