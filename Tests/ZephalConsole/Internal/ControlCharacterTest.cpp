#include <gtest/gtest.h>

#include <stdexcept>

#include "ZephalConsole/Internal/ControlCharacter.h"

namespace {

using zephal::internal::controlCharacter;

TEST(ControlCharacter, HasNamesForTheUsualOnes) {
  EXPECT_EQ(controlCharacter("interrupt"), '\x03');
  EXPECT_EQ(controlCharacter("eof"), '\x04');
  EXPECT_EQ(controlCharacter("backspace"), '\x08');
  EXPECT_EQ(controlCharacter("tab"), '\x09');
  EXPECT_EQ(controlCharacter("enter"), '\x0d');
  EXPECT_EQ(controlCharacter("xon"), '\x11');
  EXPECT_EQ(controlCharacter("xoff"), '\x13');
  EXPECT_EQ(controlCharacter("suspend"), '\x1a');
  EXPECT_EQ(controlCharacter("escape"), '\x1b');
  EXPECT_EQ(controlCharacter("quit"), '\x1c');
  EXPECT_EQ(controlCharacter("delete"), '\x7f');
}

TEST(ControlCharacter, TakesALetterInEitherCase) {
  EXPECT_EQ(controlCharacter("a"), '\x01');
  EXPECT_EQ(controlCharacter("Z"), '\x1a');
}

TEST(ControlCharacter, RefusesOtherNames) {
  EXPECT_THROW(controlCharacter("break"), std::invalid_argument);
  EXPECT_THROW(controlCharacter(""), std::invalid_argument);
  EXPECT_THROW(controlCharacter("1"), std::invalid_argument);
}

}  // namespace
