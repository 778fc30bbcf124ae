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

// Bytes of every rarity, so that the rarest one is anywhere in the text that is looked for.
TEST(TextSearch, FindsATextByItsRarestByte) {
  constexpr std::string_view kBytes = "aaaa b7X:";
  std::mt19937 random(8);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 60, ' ');
    for (char& byte : text) byte = kBytes[random() % kBytes.size()];
    std::string wanted(1 + random() % 4, ' ');
    for (char& byte : wanted) byte = kBytes[random() % kBytes.size()];
    TextSearch search(wanted);
    const size_t cut = random() % (text.size() + 1);
    size_t end = search.take(std::string_view(text).substr(0, cut));
    if (!search.isFound()) end += search.take(std::string_view(text).substr(cut));
    const size_t found = text.find(wanted);
    ASSERT_EQ(search.isFound(), found != std::string::npos) << text << "|" << wanted;
    ASSERT_EQ(end, search.isFound() ? found + wanted.size() : text.size()) << text << "|" << wanted;
  }
}

// Long texts in which the rarest byte is frequent, which are searched in blocks.
TEST(TextSearch, FindsATextWhoseRarestByteIsFrequent) {
  std::mt19937 random(10);
  for (int round = 0; round < 3000; ++round) {
    std::string text(300 + random() % 100, ' ');
    for (char& byte : text) byte = "logi:"[random() % 5];
    const std::string wanted = round % 2 == 0 ? "n:" : "ni:o";
    const size_t place = random() % text.size();
    if (round % 8 != 0) text.replace(place, wanted.size(), wanted);
    const size_t cut = random() % (text.size() + 1);
    TextSearch search(wanted);
    size_t end = search.take(std::string_view(text).substr(0, cut));
    if (!search.isFound()) end += search.take(std::string_view(text).substr(cut));
    const size_t found = text.find(wanted);
    ASSERT_EQ(search.isFound(), found != std::string::npos) << text;
    ASSERT_EQ(end, search.isFound() ? found + wanted.size() : text.size()) << text;
  }
}

// As many of the last bytes as begin the text, counted the plain way.
size_t begunAtTheEnd(const std::string& text, const std::string& wanted) {
  size_t length = std::min(text.size(), wanted.size() - 1);
  while (!text.ends_with(wanted.substr(0, length))) --length;
  return length;
}

TEST(TextSearch, TellsWhatHasBegunBeforeTheRarestByteArrives) {
  constexpr std::string_view kBytes = "logi:";
  std::mt19937 random(9);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 12, ' ');
    for (char& byte : text) byte = kBytes[random() % kBytes.size()];
    const std::string wanted = "log" + std::string(random() % 2, 'l') + "log:l";
    if (text.find(wanted) != std::string::npos) continue;
    TextSearch search(wanted);
    ASSERT_EQ(search.take(text), text.size());
    ASSERT_EQ(search.matched(), begunAtTheEnd(text, wanted)) << text;
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
