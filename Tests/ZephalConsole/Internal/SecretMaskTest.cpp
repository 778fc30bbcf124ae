#include <gtest/gtest.h>

#include "Support/ProcessorTime.h"
#include "ZephalConsole/Internal/SecretMask.h"

namespace {

using zephal::internal::SecretMask;

std::string masked(std::vector<std::string> secrets, std::string_view bytes, size_t piece) {
  SecretMask mask;
  for (const std::string& secret : secrets) mask.add(secret);
  std::string shown;
  for (size_t at = 0; at < bytes.size(); at += piece) mask.filter(bytes.substr(at, piece), shown);
  mask.flush(shown);
  return shown;
}

void expectMasked(std::vector<std::string> secrets, std::string_view bytes,
                  std::string_view expected) {
  for (size_t piece = 1; piece <= bytes.size(); ++piece) {
    EXPECT_EQ(masked(secrets, bytes, piece), expected) << "in pieces of " << piece;
  }
}

TEST(SecretMask, HidesTheEchoOfASecret) {
  expectMasked({"hunter2"}, "hunter2\r\nwelcome", "***\r\nwelcome");
}

TEST(SecretMask, HidesAnEchoAfterOtherText) {
  expectMasked({"abc"}, "Password: abc\r\n", "Password: ***\r\n");
}

TEST(SecretMask, HidesAnEchoWhoseLineBreakIsStillToCome) { expectMasked({"abc"}, "abc", "***"); }

TEST(SecretMask, HidesAnEchoThatOverlapsItsOwnBeginning) {
  expectMasked({"aab"}, "aaab\n", "a***\n");
}

TEST(SecretMask, LeavesTheWordAloneWhereNoLineBreakFollows) {
  expectMasked({"root"}, "root@board# ", "root@board# ");
}

TEST(SecretMask, LeavesTheWordAloneInLaterLines) {
  expectMasked({"root"}, "\r\nroot@board# ", "\r\nroot@board# ");
}

TEST(SecretMask, TakesALineForEachSecret) {
  expectMasked({"one", "two"}, "one\ntwo\none\n", "***\n***\none\n");
}

TEST(SecretMask, ShowsABeginningThatWasNoEcho) { expectMasked({"abcd"}, "abc", "abc"); }

TEST(SecretMask, HoldsBackOnlyWhatCouldBeginTheSecret) {
  SecretMask mask;
  mask.add("secret");
  std::string shown;
  mask.filter("the sec", shown);
  EXPECT_EQ(shown, "the ");
  EXPECT_FALSE(mask.isIdle());
}

TEST(SecretMask, HidesAnEchoThatEndsWithACarriageReturn) {
  expectMasked({"abc"}, "abc\rwelcome", "***\rwelcome");
}

TEST(SecretMask, HidesAnEchoThatIsWrappedAtTheMargin) {
  expectMasked({"abcdef"}, "Key: abc \rdef\r\n# ", "Key: ***\r\n# ");
  expectMasked({"abcdef"}, "abc\r\ndef\r\n# ", "***\r\n# ");
}

TEST(SecretMask, HidesAnEchoThatIsScrolled) {
  expectMasked({"abcdefgh"}, "abcd\r<cdef\r<efgh\r\n# ", "***\r\n# ");
  expectMasked({"abcdefgh"}, "abcdefgh\r<cdefgh\r\n# ", "***\r\n# ");
  expectMasked({"abcdefgh"}, "# \r<efgh\r\n# ", "# ***\r\n# ");
}

TEST(SecretMask, HidesAnEchoWithEscapeSequences) {
  expectMasked({"abcd"}, "\x1b[1mab\x1b[Kcd\x1b[0m\r\n\x1b[?2004l", "\x1b[1m***\r\n\x1b[?2004l");
}

TEST(SecretMask, HidesEachLineOfASecret) {
  expectMasked({"one\r\ntwo\n"}, "one\ntwo\none\n", "***\n***\none\n");
}

TEST(SecretMask, LooksForNoEchoFarInALongLine) {
  SecretMask mask;
  mask.add("abc");
  std::string shown;
  mask.filter(std::string(10000, 'x'), shown);
  EXPECT_TRUE(mask.isIdle());
  EXPECT_EQ(shown.size(), 10000U);
}

TEST(SecretMask, HidesAnEchoAtTheEndOfMuchThatArrivesTogether) {
  const std::string secret(40, 's');
  std::string echo = secret;  // redrawn until it makes the line too long to be looked at as a whole
  while (echo.size() < 1000) echo += "\r" + secret;
  const std::string text(4000, 'x');
  SecretMask mask;
  mask.add(secret);
  std::string shown;
  mask.filter(text + echo, shown);
  EXPECT_EQ(shown, text);
  mask.filter("\r\n# ", shown);
  EXPECT_EQ(shown, text + "***\r\n# ");
}

TEST(SecretMask, TakesNoLongForADeviceThatSendsCarriageReturns) {
  constexpr double kSecondsOfLinearWork = 15;
  SecretMask mask;
  std::string shown;
  const std::string flood(size_t{8} << 20, '\r');
  for (int i = 0; i < 20; ++i) mask.add("hunter2");
  const double start = support::processorTime();
  mask.filter(flood, shown);
  mask.flush(shown);
  EXPECT_LT(support::processorTime() - start, kSecondsOfLinearWork);
  EXPECT_EQ(shown, flood);
}

TEST(SecretMask, HoldsNoMoreThanALittleBack) {
  SecretMask mask;
  mask.add("abc");
  std::string shown;
  for (int i = 0; i < 100000; ++i) mask.filter("a\x1b[K", shown);
  EXPECT_GT(shown.size(), 390000U);
}

TEST(SecretMask, IsIdleWithoutSecretsAndIgnoresAnEmptyOne) {
  SecretMask mask;
  mask.add("");
  EXPECT_TRUE(mask.isIdle());
  mask.add("x");
  EXPECT_FALSE(mask.isIdle());
  mask.reset();
  EXPECT_TRUE(mask.isIdle());
}

}  // namespace
