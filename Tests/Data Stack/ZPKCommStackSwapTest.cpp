// A device that was swapped under a stack: what reads, commands and writes do from then on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRightPrompt = "[00000000:0000000A] :-) ";
constexpr const char* kOtherPrompt = "[00000000:0000000B] :-) ";
constexpr const char* kSwapText =
    "Expected ECID: [00000000:0000000A] Read ECID: [00000000:0000000B]";

// A stack that expects the device 0xA and ends its responses at the prompt.
struct GuardedStack {
  GuardedStack() {
    stack->enableECIDSwapDetectionWithECID(0xA);
    stack->setDelimiter(":-) ");
    stack->createStackWithBaseChannel(base);
  }

  ZPKCommStack* operator->() const { return stack.get(); }
  void answer(const std::string& text, const char* prompt) { base->addRead(text + prompt); }
  void readFromDifferentDevice() {
    answer("", kOtherPrompt);
    EXPECT_EQ(stack->readDataWithTimeout(1, nullptr), nullptr);
    EXPECT_EQ(stack->ecidSwapInformation(), kSwapText);
  }

  std::shared_ptr<ScriptedChannel> base = ScriptedChannel::make();
  ZPKCommStackPtr stack = ZPKCommStack::init();
};

ExpectedFailure swapFailure(const std::string& operation) {
  return commStackFailure(309, kSwapText, operation);
}

class ZPKCommStackSwapTest : public testing::Test {
 protected:
  LogCapture log;
};

TEST_F(ZPKCommStackSwapTest, TheExpectedDeviceIsLeftAlone) {
  GuardedStack made;
  ZPKErrorPtr error = olderError();
  made.answer("hello\n", kRightPrompt);
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt, &error),
            std::string("hello\n") + kRightPrompt);
  made.answer("1.0\n", kRightPrompt);
  EXPECT_EQ(made->sendCommandString("version", 1, &error), std::string("1.0\n") + kRightPrompt);
  EXPECT_EQ(made->ecidSwapInformation(), std::nullopt);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackSwapTest, WithoutAnECIDEveryDeviceIsLeftAlone) {
  const ScriptedStack made;
  made->setDelimiter(":-) ");
  made.base->addRead(kRightPrompt);
  made.base->addRead(kOtherPrompt);
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), kRightPrompt);
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), kOtherPrompt);
}

TEST_F(ZPKCommStackSwapTest, AReadThatDetectsADifferentDeviceFails) {
  GuardedStack made;
  made.answer("hello\n", kOtherPrompt);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
  expectFailure(error, log, swapFailure("readDataWithTimeout:delimiter:error:"));
  EXPECT_EQ(made->ecidSwapInformation(), kSwapText);
  EXPECT_EQ(made->isOpen(), 1);
}

TEST_F(ZPKCommStackSwapTest, ACommandToADifferentDeviceFailsAfterTheSend) {
  GuardedStack made;
  made.answer("1.0\n", kOtherPrompt);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(made->sendCommandString("version", 1, &error), std::nullopt);
  expectFailure(error, log, swapFailure("sendCommandData:timeout:error:"));
  EXPECT_THAT(made.base->writes(), ElementsAre("version\n"));
}

TEST_F(ZPKCommStackSwapTest, ASwapIsReportedInsteadOfTheDroppedResponsesTimeout) {
  GuardedStack made;
  made.answer("", kOtherPrompt);
  log.clear();
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(0, nullptr, &error), nullptr);
  expectFailure(error, log, swapFailure("readDataWithTimeout:delimiter:error:"));
}

TEST_F(ZPKCommStackSwapTest, ASwapIsReportedWhateverTheOtherSettings) {
  for (const bool drop : {true, false}) {
    for (const bool timeoutIsException : {true, false}) {
      GuardedStack made;
      made->ecidChecker()->setDropResponseWhenECIDSwapDetected(drop);
      made->setTimeoutIsException(timeoutIsException);
      made.answer("data", kOtherPrompt);
      ZPKErrorPtr error;
      EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
      EXPECT_EQ(codeOf(error), 309);
    }
  }
}

TEST_F(ZPKCommStackSwapTest, ASwapReplacesTheErrorOfTheReadItself) {
  GuardedStack made;
  made.readFromDifferentDevice();
  log.clear();
  for (const ZPKErrorPtr& failure : {errorFromBelow(), ZPKErrorPtr()}) {
    for (int i = 0; i < 2; ++i) made.base->addFailedRead(failure, false);
    ZPKErrorPtr error = olderError();
    EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
    expectError(error, swapFailure("readDataWithTimeout:delimiter:error:"));
    error = olderError();
    EXPECT_EQ(made->sendCommandData(dataOf("ask"), 1, &error), nullptr);
    expectError(error, swapFailure("sendCommandData:timeout:error:"));
  }
  EXPECT_THAT(log.lines(),
              testing::AllOf(testing::SizeIs(4), testing::Each(LogLine{0, kSwapText})));
}

TEST_F(ZPKCommStackSwapTest, LaterReadsAndCommandsFailAfterTheirInputAndOutput) {
  GuardedStack made;
  made.readFromDifferentDevice();
  const std::vector<std::function<bool(ZPKErrorPtr*)>> calls = {
      [&](ZPKErrorPtr* error) { return !made->readDataWithTimeout(1, nullptr, error); },
      [&](ZPKErrorPtr* error) { return !made->readStringWithTimeout(1, ":-) ", error); },
      [&](ZPKErrorPtr* error) { return !made->sendCommandData(dataOf("a"), 1, error); },
      [&](ZPKErrorPtr* error) { return !made->sendCommandString("b", 1, error); },
      [&](ZPKErrorPtr* error) { return !made->sendCommandStringWithEchoRemoval("c", 1, error); },
      [&](ZPKErrorPtr* error) {
        return !made->sendCommandStringWithEchoRemoval("d", nullptr, 1, error);
      }};
  for (const auto& fails : calls) {
    made.answer("fine\n", kRightPrompt);
    const size_t readsBefore = made.base->readTimeouts().size();
    ZPKErrorPtr error;
    EXPECT_TRUE(fails(&error));
    EXPECT_EQ(codeOf(error), 309);
    EXPECT_EQ(made.base->readTimeouts().size(), readsBefore + 1);
  }
  EXPECT_THAT(made.base->writes(), ElementsAre("a\n", "b\n", "c\n", "d\n"));
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "");
}

TEST_F(ZPKCommStackSwapTest, WritesGoOnWorkingAfterASwap) {
  GuardedStack made;
  made.readFromDifferentDevice();
  log.clear();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(made->writeData(dataOf("a"), &error));
  EXPECT_TRUE(made->writeString("b", &error));
  EXPECT_THAT(made.base->writes(), ElementsAre("a\n", "b\n"));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackSwapTest, NeitherClosingReopeningNorANewChainClearsASwap) {
  GuardedStack made;
  made.readFromDifferentDevice();
  const auto expectStillSwapped = [&] {
    made.answer("", kRightPrompt);
    ZPKErrorPtr error;
    EXPECT_EQ(made->sendCommandString("ask", 1, &error), std::nullopt);
    EXPECT_EQ(codeOf(error), 309);
    EXPECT_EQ(descriptionOf(error), kSwapText);
  };
  expectStillSwapped();
  ASSERT_TRUE(made->close());
  EXPECT_EQ(made->ecidSwapInformation(), kSwapText);
  ASSERT_TRUE(made->openWithTimeout(1));
  expectStillSwapped();
  ASSERT_TRUE(made->close());
  ZPKErrorPtr error;
  EXPECT_FALSE(made->enableECIDSwapDetectionWithECID(0xB, &error));
  EXPECT_EQ(codeOf(error), 302);
  made.base = ScriptedChannel::make();
  ASSERT_TRUE(made->createStackWithBaseChannel(made.base));
  expectStillSwapped();
}

TEST_F(ZPKCommStackSwapTest, AfterItsAccessorClearsASwapTheStackWorksAgain) {
  GuardedStack made;
  made.readFromDifferentDevice();
  made->setEcidSwapInformation(std::nullopt);
  made.answer("fine\n", kRightPrompt);
  EXPECT_EQ(made->sendCommandString("ask", 1), std::string("fine\n") + kRightPrompt);
  made.readFromDifferentDevice();  // and a further swap is detected
}

TEST_F(ZPKCommStackSwapTest, ALaterSwapReplacesTheTextOfAnEarlierOne) {
  GuardedStack made;
  made.readFromDifferentDevice();
  made.answer("", "[00000000:0000000C] :-) ");
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
  EXPECT_EQ(descriptionOf(error),
            "Expected ECID: [00000000:0000000A] Read ECID: [00000000:0000000C]");
}

TEST_F(ZPKCommStackSwapTest, AClosedStackReportsThatFirst) {
  GuardedStack made;
  made.readFromDifferentDevice();
  made.base->setOpened(false);
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
  EXPECT_EQ(codeOf(error), 304);
}

TEST_F(ZPKCommStackSwapTest, APromptIsSeenHoweverItsBytesArrive) {
  const std::string response = std::string("text\n") + kOtherPrompt;
  for (size_t split = 0; split <= response.size(); ++split) {
    GuardedStack made;
    made.base->addRead(response.substr(0, split));
    made.base->addRead(response.substr(split));
    EXPECT_EQ(made->readDataWithTimeout(30, nullptr), nullptr);
    EXPECT_EQ(made->ecidSwapInformation(), kSwapText) << "split at " << split;
  }
}

TEST_F(ZPKCommStackSwapTest, AResponseIsCheckedOnceThoughItsReadWasRepeated) {
  GuardedStack made;
  int swaps = 0;
  const auto usual = made->ecidChecker()->swapAction();
  made->ecidChecker()->setSwapAction([&](const std::string& expected, const std::string& read) {
    ++swaps;
    usual(expected, read);
  });
  for (const char byte : std::string(kOtherPrompt)) made.base->addRead(std::string_view(&byte, 1));
  EXPECT_EQ(made->readDataWithTimeout(30, nullptr), nullptr);
  EXPECT_EQ(swaps, 1);
}

TEST_F(ZPKCommStackSwapTest, ADelimiterThatSplitsThePromptHidesIt) {
  GuardedStack made;
  made->setDelimiter("]");
  made.answer("", kOtherPrompt);
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "[00000000:0000000B]");
  EXPECT_EQ(made->ecidSwapInformation(), std::nullopt);
}

TEST_F(ZPKCommStackSwapTest, TheDelimiterIsAlsoRestoredAfterASwap) {
  GuardedStack made;
  made->setDelimiter("> ");
  made.answer("", kOtherPrompt);
  EXPECT_EQ(made->readDataWithTimeout(1, dataOf(":-) ")), nullptr);
  EXPECT_EQ(bytesOf(made->aggregator()->data2Find()), "> ");
}

TEST_F(ZPKCommStackSwapTest, ASwapTextIsNotUsedAsAFormat) {
  GuardedStack made;
  made->ecidChecker()->setRegex(ZPKRegex::initWithPattern("(?s)^.{19}$"));
  made->ecidChecker()->setExpectedECIDString("%@%s%n%d%%");
  const std::string read = "[%s%n%@:%1$d%%%x.%]";
  ASSERT_EQ(read.size(), 19U);
  made.base->addRead(read + " :-) ");
  log.clear();
  ZPKErrorPtr error;
  EXPECT_EQ(made->readDataWithTimeout(1, nullptr, &error), nullptr);
  expectFailure(error, log,
                commStackFailure(309, "Expected ECID: %@%s%n%d%% Read ECID: " + read,
                                 "readDataWithTimeout:delimiter:error:"));
}

}  // namespace
