#include <gtest/gtest.h>

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
