#include <gtest/gtest.h>

#include "ZephalConsole/Internal/EscapeFilter.h"

namespace {

using zephal::internal::EscapeFilter;

std::string filtered(std::string_view bytes, size_t piece) {
  EscapeFilter filter;
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += piece) filter.filter(bytes.substr(at, piece), text);
  return text;
}

// The same result for every length of pieces.
void expectFiltered(std::string_view bytes, std::string_view expected) {
  for (size_t piece = 1; piece <= bytes.size(); ++piece) {
    EXPECT_EQ(filtered(bytes, piece), expected) << "in pieces of " << piece;
  }
}

TEST(EscapeFilter, RemovesColours) { expectFiltered("a\x1b[1;32mb\x1b[0mc", "abc"); }

TEST(EscapeFilter, RemovesWhatSwitchesBracketedPaste) {
  expectFiltered("\x1b[?2004h$ \x1b[?2004l\r\n", "$ \r\n");
}

TEST(EscapeFilter, RemovesATitleThatABellEnds) { expectFiltered("\x1b]0;root@board\a# ", "# "); }

TEST(EscapeFilter, RemovesATitleThatAStringTerminatorEnds) {
  expectFiltered("\x1b]0;root@board\x1b\\# ", "# ");
}

TEST(EscapeFilter, RemovesEscapesOfTwoAndThreeCharacters) {
  expectFiltered(
      "a\x1b"
      "7b\x1b(Bc\x1b"
      "=d",
      "abcd");
}

TEST(EscapeFilter, BeginsAnewAtAnEscapeWithinASequence) { expectFiltered("a\x1b[3\x1b[1mb", "ab"); }

TEST(EscapeFilter, BeginsAnewAtAnEscapeWithinACharacterSetSequence) {
  expectFiltered("a\x1b(\x1b[1mb", "ab");
}

TEST(EscapeFilter, RemovesASequenceThatEndsALongString) {
  expectFiltered("a\x1b]0;" + std::string(100, 'x') + "\x1b[31mb", "ab");
}

TEST(EscapeFilter, EndsASequenceAtCancel) {
  expectFiltered(
      "a\x1b[3\x18"
      "1mb",
      "a1mb");
}

TEST(EscapeFilter, KeepsALineBreakWithinASequence) { expectFiltered("a\x1b[3\nmb", "a\nb"); }

TEST(EscapeFilter, KeepsOtherControlCharactersAndBytesAbove127) {
  expectFiltered("\a\b\t\r\n\x7f\xff", "\a\b\t\r\n\x7f\xff");
}

TEST(EscapeFilter, LosesOnlySomeKiBToAStringWithoutAnEnd) {
  const std::string bytes = "\x1b]" + std::string(10000, 'x');
  EXPECT_EQ(filtered(bytes, 100), std::string(10000 - 4095, 'x'));
}

TEST(EscapeFilter, LosesFewBytesToAControlSequenceWithoutAnEnd) {
  const std::string bytes = "\x1b[" + std::string(1000, '1');
  EXPECT_EQ(filtered(bytes, 10), std::string(1000 - 63, '1'));
}

TEST(EscapeFilter, ForgetsABegunSequenceAfterReset) {
  EscapeFilter filter;
  std::string text;
  filter.filter("\x1b[1", text);
  filter.reset();
  filter.filter("2m", text);
  EXPECT_EQ(text, "2m");
}

}  // namespace
