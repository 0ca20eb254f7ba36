#include <gtest/gtest.h>

#include <cstring>

#include "message/serialization.h"
#include "tests/support/taken_log.h"
#include "tests/unit/message/frames.h"

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

}  // namespace
}  // namespace ProcMgr::Serialization
