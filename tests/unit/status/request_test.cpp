// Requests of the status service, whole, odd, and without memory.
#include "status/request.h"

#include <new>

#include "tests/support/memory_shortage.h"
#include "tests/support/test.h"

namespace ProcMgr::Status {
namespace {

std::string TextOf(const Request& request) {
  return request.get + "," + request.name + "," + (request.isWatch ? "watch" : "");
}

TEST(StatusRequest, IsTakenOutOfItsLine) {
  const struct {
    const char* line;
    const char* expected;
  } cases[] = {
      {R"({"get":"status"})", "status,,"},
      {R"( {"name": "a\u0062", "get": "app", "more": 1.5} )", "app,ab,"},
      {R"({"watch":true})", ",,watch"},
      {R"({"watch":true,"watch":false})", ",,"},
      {R"({"get":"boot","get":["status"]})", ",,"},
      {R"({"get":"boot","get":null})", ",,"},
      {R"({"more":{"get":"boot","watch":true},"list":[{"get":"boot"}]})", ",,"},
      {R"([{"get":"boot"},"get"])", ",,"},
      {R"({"watch":"true","get":7,"name":-7})", ",,"},
      {R"({"get":"status"} {})", ",,"},
      {R"({"get":"status")", ",,"},
      {R"("get")", ",,"},
      {"", ",,"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(TextOf(ParseRequest(each.line)), each.expected) << each.line;
  }
}

thread_local int allocationsLeft = 0;

// Each allocation in turn, and all behind it.
TEST(StatusRequest, WithoutMemoryIsNoMoreThanAnException) {
  const std::string line = R"({"get":"app","name":"a name that no small string holds","more":[1]})";
  bool isWhole = false;
  for (int given = 0; given < 1000 && !isWhole; ++given) {
    allocationsLeft = given;
    PmTest::Starve([] { return allocationsLeft-- <= 0; });
    try {
      isWhole = ParseRequest(line).name.starts_with("a name");
    } catch (const std::bad_alloc&) {
      EXPECT_LT(allocationsLeft, 0);
    }
    PmTest::Starve(nullptr);
  }
  EXPECT_TRUE(isWhole);
}

}  // namespace
}  // namespace ProcMgr::Status
