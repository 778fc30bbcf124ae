// Conversations as a user holds them: only through the shared library and its public headers.
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "AnsweringPeer.h"

namespace {

// Failures are expected here; their lines would only hide a real one.
class ConversationTest : public testing::Test {
 protected:
  ConversationTest() {
    ZPKLoggingSetSink([](int, std::string_view) {});
  }
  ~ConversationTest() override { ZPKLoggingSetSink(nullptr); }

  // A stack that is open, since the socket is.
  static ZPKCommStackPtr stackOver(AnsweringPeer& peer) {
    ZPKErrorPtr error;
    auto stack = ZPKCommStack::init();
    const auto channel = createActiveTCPChannelWithSocket(peer.takeSocket(), &error);
    if (!stack->createStackWithBaseChannel(channel, &error)) return nullptr;
    return stack;
  }

  ZPKErrorPtr _error;
};

TEST_F(ConversationTest, ACommandGetsTheResponseUpToThePrompt) {
  AnsweringPeer peer([](const std::string& line) { return "you said " + line + "\n> "; });
  const auto stack = stackOver(peer);
  ASSERT_NE(stack, nullptr);
  EXPECT_EQ(stack->sendCommandString("version", 30, &_error), "you said version\n> ");
  EXPECT_EQ(stack->sendCommandString("uptime", 30, &_error), "you said uptime\n> ");
  EXPECT_EQ(_error, nullptr);
  EXPECT_TRUE(stack->close(&_error));
  EXPECT_EQ(stack->isOpen(), 0);
}

TEST_F(ConversationTest, EachReadReturnsOneResponseOfAChunkWithTwo) {
  AnsweringPeer peer([](const std::string&) { return "first> second> "; });
  const auto stack = stackOver(peer);
  ASSERT_NE(stack, nullptr);
  ASSERT_TRUE(stack->writeString("both", &_error));
  EXPECT_EQ(stack->readStringWithTimeout(30, std::nullopt, &_error), "first> ");
  EXPECT_EQ(stack->readStringWithTimeout(30, std::nullopt, &_error), "second> ");
}

TEST_F(ConversationTest, NewDelimitersAndTerminatorsApplyToTheNextCommand) {
  AnsweringPeer peer([](const std::string& line) { return "<" + line + ">=> "; });
  const auto stack = stackOver(peer);
  ASSERT_NE(stack, nullptr);
  ASSERT_TRUE(stack->setDelimiter("=> ", &_error));
  ASSERT_TRUE(stack->setLineTerminator("\r\n", &_error));
  EXPECT_EQ(stack->sendCommandString("a", 30, &_error), "<a\r>=> ");
}

TEST_F(ConversationTest, AnEchoIsRemovedAndTheExpressionSelectsItsGroup) {
  AnsweringPeer peer([](const std::string& line) { return line + "\ntemperature 21.5 C\n> "; });
  const auto stack = stackOver(peer);
  ASSERT_NE(stack, nullptr);
  const auto regex = ZPKRegex::initWithPattern("temperature ([0-9.]+)", &_error);
  ASSERT_NE(regex, nullptr);
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("read", 30, &_error), "temperature 21.5 C\n> ");
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("read", regex, 30, &_error), "21.5");
}

TEST_F(ConversationTest, TheErrorAfterSilenceNamesTheCommandAndTimeout) {
  AnsweringPeer peer([](const std::string&) { return "no prompt follows"; });
  const auto stack = stackOver(peer);
  ASSERT_NE(stack, nullptr);
  EXPECT_EQ(stack->sendCommandString("status", 0.2, &_error), std::nullopt);
  ASSERT_NE(_error, nullptr);
  EXPECT_EQ(_error->domain(), "zephalbench.zephal-commchannel");
  EXPECT_EQ(_error->code(), 305);
  EXPECT_EQ(_error->description(),
            "Timed out waiting for response for command 'status' after 0.2 sec");
}

TEST_F(ConversationTest, ADeviceThatHangsUpClosesTheStack) {
  AnsweringPeer peer([](const std::string&) { return ""; });
  const auto stack = stackOver(peer);
  ASSERT_NE(stack, nullptr);
  peer.hangUp();
  EXPECT_EQ(stack->readDataWithTimeout(30, nullptr, &_error), nullptr);
  ASSERT_NE(_error, nullptr);
  EXPECT_EQ(_error->code(), 5);
  EXPECT_EQ(stack->isOpen(), 0);
  EXPECT_EQ(stack->sendCommandString("version", 1, &_error), std::nullopt);
  EXPECT_EQ(_error->code(), 304);
}

TEST_F(ConversationTest, AFailureIsOneLineInTheHostsOwnLog) {
  std::string lines;
  ZPKLoggingSetSink([&lines](int level, std::string_view line) {
    lines += std::to_string(level) + ' ' + std::string(line) + '\n';
  });
  EXPECT_EQ(createBaseChannelWithTransport("carrier-pigeon://loft", &_error), nullptr);
  ZPKLoggingSetSink(nullptr);
  EXPECT_EQ(lines, "0 Invalid URL scheme\n");
  ASSERT_NE(_error, nullptr);
  EXPECT_EQ(_error->description(), "Invalid URL scheme");
}

}  // namespace
