#include <gtest/gtest.h>

#include <string>

#include "Soak/StreamChecker.h"

namespace {

using soak::Damage;
using soak::StreamChecker;
using soak::Token;

std::string line(uint32_t number, int device = 7, uint32_t connection = 1) {
  return soak::textOf({Token::Kind::kLine, device, connection, number, 'N', 0, 0});
}

std::string prompt(uint32_t number) {
  return soak::textOf({Token::Kind::kPrompt, 7, 1, number, 'N', 0, 0});
}

std::string command(uint32_t number) {
  return soak::textOf({Token::Kind::kCommand, 7, 1, number, 'T', 12, 0});
}

Damage damageOf(const std::string& stream) {
  StreamChecker checker(7, false, true);
  checker.feed(stream);
  checker.finish(false);
  return checker.damage();
}

std::string withoutLineFeeds(std::string text) {
  std::erase(text, '\n');
  return text;
}

TEST(StreamCheckerTest, AStreamIsWholeWithEverySplit) {
  const std::string stream = line(0) + prompt(1) + line(2);
  for (size_t at = 0; at <= stream.size(); ++at) {
    StreamChecker checker(7, false, true);
    checker.feed(stream.substr(0, at));
    checker.feed(stream.substr(at));
    checker.finish(false);
    EXPECT_TRUE(checker.damage().isNone()) << at;
    EXPECT_EQ(checker.next(), 3U);
    EXPECT_EQ(checker.prompts(), 1U);
  }
}

TEST(StreamCheckerTest, EveryLostByteIsCounted) {
  const std::string stream = line(0) + prompt(1) + line(2) + line(3);
  for (size_t at = 0; at < stream.size() - 20; ++at) {
    const Damage damage = damageOf(std::string(stream).erase(at, 1));
    EXPECT_EQ(damage.lost, 1U) << at;
    EXPECT_EQ(damage.doubled + damage.foreign, 0U) << at;
  }
}

TEST(StreamCheckerTest, EveryDoubledByteIsCounted) {
  const std::string stream = line(0) + prompt(1) + line(2) + line(3);
  for (size_t at = 0; at < stream.size() - 20; ++at) {
    const Damage damage = damageOf(std::string(stream).insert(at, 1, stream[at]));
    EXPECT_EQ(damage.doubled, 1U) << at;
    EXPECT_EQ(damage.lost + damage.foreign, 0U) << at;
  }
}

TEST(StreamCheckerTest, EveryAlteredByteIsForeign) {
  const std::string stream = line(0) + prompt(1) + line(2) + line(3);
  for (size_t at = 0; at < stream.size() - 20; ++at) {
    std::string altered = stream;
    altered[at] = '!';
    EXPECT_FALSE(damageOf(altered).isNone()) << at;
  }
}

TEST(StreamCheckerTest, LostAndDoubledTokensAreCountedInBytes) {
  EXPECT_EQ(damageOf(line(0) + line(2)).lost, 20U);
  EXPECT_EQ(damageOf(line(1)).lost, 20U);
  EXPECT_EQ(damageOf(line(0) + line(0)).doubled, 20U);
}

TEST(StreamCheckerTest, BytesOfOtherDevicesAndConnectionsAreForeign) {
  EXPECT_EQ(damageOf(line(0) + line(0, 8) + line(1)).foreign, 20U);
  EXPECT_EQ(damageOf(line(0) + line(0, 7, 2) + line(1)).foreign, 20U);
}

TEST(StreamCheckerTest, AnOldConnectionIsForeignToANewOne) {
  StreamChecker checker(7, false, true);
  checker.feed(line(0));
  checker.startConnection();
  checker.feed(line(1) + line(0, 7, 2));
  EXPECT_EQ(checker.damage().foreign, 20U);
  EXPECT_EQ(checker.next(), 1U);
}

TEST(StreamCheckerTest, OnlyACutConnectionMayEndWithinAToken) {
  for (const bool wasCut : {false, true}) {
    StreamChecker checker(7, false, true);
    checker.feed(line(0) + line(1).substr(0, 9));
    checker.finish(wasCut);
    EXPECT_EQ(checker.damage().foreign, wasCut ? 0U : 9U);
  }
}

TEST(StreamCheckerTest, LogsHaveNoLineFeeds) {
  StreamChecker checker(7, false, false);
  checker.feed(withoutLineFeeds(line(0) + prompt(1) + line(2)));
  EXPECT_TRUE(checker.damage().isNone());
  EXPECT_EQ(checker.next(), 3U);
}

TEST(StreamCheckerTest, EchoesAreForeignUnlessExpected) {
  for (const bool areExpected : {false, true}) {
    StreamChecker checker(7, false, true);
    if (areExpected) checker.expectEchoes();
    checker.feed(line(0) + command(5) + line(1));
    EXPECT_EQ(checker.damage().isNone(), areExpected);
    EXPECT_EQ(checker.next(), 2U);
  }
}

TEST(StreamCheckerTest, CommandsHaveAModeAndAnAmount) {
  StreamChecker checker(7, true, true);
  checker.feed(command(0));
  EXPECT_EQ(checker.last().mode, 'T');
  EXPECT_EQ(checker.last().amount, 12U);
  checker.feed(command(2));
  EXPECT_EQ(checker.damage().lost, command(1).size());
}

}  // namespace
