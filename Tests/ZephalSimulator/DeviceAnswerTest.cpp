#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "DeviceAnswer.h"

using zephal::DeviceAnswer;
using namespace std::chrono_literals;

namespace {

TEST(DeviceAnswerTest, AnyKindOfTextIsAnAnswerWithAPrompt) {
  const DeviceAnswer answers[] = {"text", std::string("text"), std::string_view("text")};
  for (const DeviceAnswer& answer : answers) {
    EXPECT_EQ(answer.text, "text");
    EXPECT_EQ(answer.then, DeviceAnswer::Then::kPrompt);
    EXPECT_FALSE(answer.isSilent || answer.delay.has_value() || answer.prompt.has_value());
  }
}

TEST(DeviceAnswerTest, FactoriesSayWhatHappensAfterTheText) {
  EXPECT_TRUE(DeviceAnswer::silence().isSilent);
  EXPECT_EQ(DeviceAnswer::withoutPrompt("x").then, DeviceAnswer::Then::kNothing);
  EXPECT_EQ(DeviceAnswer::hangUp("x").then, DeviceAnswer::Then::kHangUp);
  EXPECT_EQ(DeviceAnswer::reboot("x", 2s).then, DeviceAnswer::Then::kReboot);
  EXPECT_EQ(DeviceAnswer::reboot("x", 2s).away, 2000ms);
  EXPECT_EQ(DeviceAnswer::after(5ms, "x").delay, 5ms);
  EXPECT_EQ(DeviceAnswer::after(5ms, "x").text, "x");
}

}  // namespace
