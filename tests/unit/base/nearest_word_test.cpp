// The search for a near word against the full distance.
#include "base/nearest_word.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace ProcMgr {
namespace {

// All words of up to four letters of {a, b}.
std::vector<std::string> ShortWords() {
  std::vector<std::string> words = {""};
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i].size() < 4) {
      words.push_back(words[i] + 'a');
      words.push_back(words[i] + 'b');
    }
  }
  return words;
}

TEST(FindNearWord, IsTheFirstOfTheNearestWithinTheLimit) {
  const std::vector<std::string> words = ShortWords();
  for (const std::string& word : words) {
    for (const std::string& other : words) {
      const std::array<std::string_view, 1> one = {other};
      for (std::size_t limit = 0; limit < 4; ++limit) {
        EXPECT_EQ(FindNearWord(word, one, limit).has_value(), EditDistance(word, other) <= limit)
            << word << ' ' << other << ' ' << limit;
      }
    }
  }
  const std::array<std::string_view, 4> several = {"camera_x", "camra", "cameras", "map"};
  EXPECT_EQ(FindNearWord("camera", several, 2), "camra");
  EXPECT_EQ(FindNearWord("planner", several, 2), std::nullopt);
  EXPECT_EQ(FindNearWord("map", {}, 2), std::nullopt);
}

}  // namespace
}  // namespace ProcMgr
