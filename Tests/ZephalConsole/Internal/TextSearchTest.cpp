#include <gtest/gtest.h>

#include <random>
#include <string>

#include "ZephalConsole/Internal/TextSearch.h"

namespace {

using zephal::internal::TextSearch;

// The end of the first occurrence, fed in pieces of random length.
size_t endInPieces(const std::string& text, const std::string& wanted, std::mt19937& random) {
  TextSearch search(wanted);
  size_t at = 0;
  while (at < text.size() && !search.isFound()) {
    const size_t length = std::min<size_t>(random() % 4, text.size() - at);
    at += search.take(std::string_view(text).substr(at, length));
  }
  return search.isFound() ? at : std::string::npos;
}

TEST(TextSearch, FindsWhatFindDoesHoweverTheTextIsCut) {
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 30, 'a');
    for (char& byte : text) byte = static_cast<char>('a' + random() % 2);
    std::string wanted(1 + random() % 5, 'a');
    for (char& byte : wanted) byte = static_cast<char>('a' + random() % 2);
    const size_t found = text.find(wanted);
    const size_t expected = found == std::string::npos ? found : found + wanted.size();
    ASSERT_EQ(endInPieces(text, wanted, random), expected) << text << " " << wanted;
  }
}

TEST(TextSearch, TellsHowMuchOfTheTextHasBegun) {
  TextSearch search("aab");
  EXPECT_EQ(search.take("xaa"), 3U);
  EXPECT_EQ(search.matched(), 2U);
  EXPECT_EQ(search.take("a"), 1U);
  EXPECT_EQ(search.matched(), 2U);
  EXPECT_EQ(search.take("bcd"), 1U);
  EXPECT_TRUE(search.isFound());
  EXPECT_EQ(search.take("more"), 0U);
}

TEST(TextSearch, BeginsAnewAfterReset) {
  TextSearch search("ab");
  search.take("a");
  search.reset();
  search.take("b");
  EXPECT_FALSE(search.isFound());
}

}  // namespace
