#include "base/last_words.h"

#include "tests/support/test.h"

namespace ProcMgr {
namespace {

// A child that leaves the text and ends; its pid, which has been reaped.
pid_t Leave(const std::string& text) {
  const pid_t child = fork();
  if (child == 0) {
    KeepLastWords(getpid(), text);
    _exit(0);
  }
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  return child;
}

TEST(LastWords, OfEachChildReachTheManagerOnce) {
  const pid_t silent = Leave("");
  const pid_t talker = Leave(std::string(kLongestLastWords, 'x') + "cut");
  EXPECT_EQ(TakeLastWords(talker), std::string(kLongestLastWords, 'x'));
  EXPECT_EQ(TakeLastWords(talker), std::nullopt);
  EXPECT_EQ(TakeLastWords(silent), "");
  EXPECT_EQ(TakeLastWords(getpid()), std::nullopt);
}

TEST(LastWords, TheOldestGiveWay) {
  std::vector<pid_t> children;
  for (std::size_t i = 0; i <= kKeptLastWords; ++i) {
    children.push_back(Leave(std::to_string(i)));
  }
  EXPECT_EQ(TakeLastWords(children.front()), std::nullopt);
  for (std::size_t i = 1; i <= kKeptLastWords; ++i) {
    EXPECT_EQ(TakeLastWords(children[i]), std::to_string(i));
  }
}

}  // namespace
}  // namespace ProcMgr
