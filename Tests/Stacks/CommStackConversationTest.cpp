// Whole comm stacks that talk to simulated devices over a pseudo-terminal, TCP and a unix socket.

#include <chrono>
#include <thread>

#include "Stacks/CommStackFixture.h"
#include "Support/ScriptedStack.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CommStackConversationTest : public CommStackFixture {};

INSTANTIATE_TEST_SUITE_P(, CommStackConversationTest, allLineKinds(), lineKindName);

TEST_P(CommStackConversationTest, CommandsGetTheirResponsesInOrder) {
  connect(
      {.responses = {{"version", "1.0\r\n"}, {"", "nothing asked\n"}, {"temp", "21 \u00B0C\n"}}});
  ZPKErrorPtr error = olderError();
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(ask("version", &error), "1.0\r\n=> ");
    EXPECT_EQ(ask("temp", &error), "21 \u00B0C\n=> ");
    EXPECT_EQ(ask("", &error), "nothing asked\n=> ");
    EXPECT_EQ(ask("unknown", &error), "=> ");
  }
  EXPECT_EQ(device->commands().size(), 80U);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(CommStackConversationTest, ABannerIsReadBeforeTheFirstCommand) {
  connect({.responses = {{"root", "Password: "}}, .respond = {}});
  device->send("boot\nlogin: ");
  EXPECT_EQ(stack->readStringWithTimeout(kLong, "login: "), "boot\nlogin: ");
  EXPECT_TRUE(stack->writeString("root"));
  EXPECT_EQ(stack->readStringWithTimeout(kLong, "Password: "), "Password: ");
  EXPECT_EQ(read(), "=> ");
}

TEST_P(CommStackConversationTest, WritesEndInTheCurrentLineTerminator) {
  connect({.isSilent = true});
  EXPECT_TRUE(stack->writeString("one"));
  EXPECT_TRUE(stack->setLineTerminator("\r\n"));
  EXPECT_TRUE(stack->writeData(dataOf("two")));
  EXPECT_TRUE(stack->setLineTerminator(std::nullopt));
  EXPECT_TRUE(stack->writeString(std::string_view("\0three\xFF", 7)));
  const std::string all("one\ntwo\r\n\0three\xFF", 16);
  EXPECT_TRUE(device->waitForReceived(all));
  EXPECT_EQ(device->received(), all);
}

TEST_P(CommStackConversationTest, OneEchoIsRemovedAndThePatternSelectsItsPart) {
  connect({.echoes = true, .responses = {{"temp", "temp\n21 \u00B0C\n"}}});
  EXPECT_EQ(ask("temp"), "temp\ntemp\n21 \u00B0C\n=> ");
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("temp", kLong), "temp\n21 \u00B0C\n=> ");
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern("(\\d+ .C)");
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("temp", regex, kLong), "21 \u00B0C");
}

TEST_P(CommStackConversationTest, TheSecondOfTwoResponsesNeedsNoSystemCall) {
  connect();
  device->send("one=> two=> ");
  EXPECT_EQ(read(), "one=> ");
  ASSERT_TRUE(heldBytes() == "two=> " || waitUntilHeld("two=> "));
  const SystemCalls calls;
  EXPECT_EQ(read(), "two=> ");
  EXPECT_THAT(calls.texts({"select", "read", "ioctl"}), IsEmpty());
}

TEST_P(CommStackConversationTest, BytesAfterAPromptBeginTheNextResponse) {
  connect();
  device->send("one=> and ");
  EXPECT_EQ(read(), "one=> ");
  EXPECT_EQ(ask("two"), "and => ");
}

TEST_P(CommStackConversationTest, AResponseIsTheSameWhereverItIsSplit) {
  connect();
  const std::string response = "1\r\n=>=> ";
  for (size_t split = 1; split < response.size(); ++split) {
    device->send(response.substr(0, split));
    ASSERT_TRUE(waitUntilHeld(response.substr(0, split)));
    device->send(response.substr(split));
    EXPECT_EQ(read(), response) << "split at " << split;
  }
}

TEST_P(CommStackConversationTest, APromptIsFoundWhereverItIsSplit) {
  connect();
  for (size_t split = 0; split <= 3; ++split) {
    device->setBehaviour({.responses = {{"ask", "answer"}}, .splitsPromptAfter = split});
    EXPECT_EQ(ask("ask"), "answer=> ") << "split at " << split;
  }
}

TEST_P(CommStackConversationTest, ATricklingResponseArrivesWhole) {
  connect({.responses = {{"ask", "slow \u20AC\n"}},
           .pause = std::chrono::milliseconds(1),
           .trickles = true});
  EXPECT_EQ(ask("ask"), "slow \u20AC\n=> ");
  EXPECT_EQ(stack->sendCommandString("ask", std::nullopt), "slow \u20AC\n=> ");
}

TEST_P(CommStackConversationTest, ASilentDeviceTimesOutAndTheStackStaysOpen) {
  connect({.isSilent = true});
  const auto start = std::chrono::system_clock::now();
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(stack->sendCommandString("ask", 0.1, &error), std::nullopt);
  const auto passed = std::chrono::system_clock::now() - start;
  expectFailure(
      error, log,
      commStackFailure(305, "Timed out waiting for response for command 'ask' after 0.1 sec",
                       "sendCommandData:timeout:error:"));
  EXPECT_GE(passed, std::chrono::milliseconds(100));
  EXPECT_LT(passed, kPatience);
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_TRUE(device->waitForCommands(1));
}

TEST_P(CommStackConversationTest, TimeoutsLeaveTheLineUsable) {
  connect({.isSilent = true});
  for (int round = 0; round < 5; ++round) {
    ZPKErrorPtr error;
    EXPECT_EQ(stack->readDataWithTimeout(0.01, nullptr, &error), nullptr);
    EXPECT_EQ(codeOf(error), 305);
  }
  device->send("here=> ");
  EXPECT_EQ(read(), "here=> ");
}

TEST_P(CommStackConversationTest, NowOnAnIdleLineFailsWithoutWaiting) {
  connect();
  const SystemCalls calls;
  ZPKErrorPtr error;
  EXPECT_EQ(stack->readDataWithTimeout(0, nullptr, &error), nullptr);
  expectFailure(error, log,
                commStackFailure(305, "Timed out trying to read after 0 sec",
                                 "readDataWithTimeout:delimiter:error:"));
  EXPECT_THAT(calls.texts({"select", "read", "ioctl"}), ElementsAre("ioctl FIONREAD"));
  stack->setTimeoutIsException(false);
  error = olderError();
  EXPECT_EQ(bytesOf(stack->readDataWithTimeout(0, nullptr, &error)), "");
  EXPECT_EQ(stack->readStringWithTimeout(0, std::nullopt, &error), "");
  EXPECT_EQ(error, olderError());
}

TEST_P(CommStackConversationTest, WithoutALimitAReadWaitsUntilTheDeviceAnswers) {
  const std::vector<std::optional<ZPKNumber>> forever = {std::nullopt, -1};
  connect();
  for (const auto& timeout : forever) {
    SystemCalls calls;
    // The device begins to send once the stack is about to wait, and pauses before its prompt.
    calls.before("select forever", [&] { device->send("at "); });
    calls.before(
        "select forever", [&] { device->send("last=> "); }, 1);
    EXPECT_EQ(stack->readStringWithTimeout(timeout, std::nullopt), "at last=> ");
    EXPECT_THAT(calls.texts({"select"}), testing::Each("select forever"));
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(CommStackConversationTest, TheTransportWaitsForOneTenthOfTheTimeout) {
  connect();
  SystemCalls calls;
  calls.before("select", [&] { device->send("=> "); });
  EXPECT_EQ(stack->readStringWithTimeout(15, std::nullopt), "=> ");
  ASSERT_FALSE(calls.texts({"select"}).empty());
  EXPECT_EQ(calls.texts({"select"}).front(), "select 1.500000");
}

TEST_P(CommStackConversationTest, ALateResponseAnswersTheNextCommand) {
  connect({.isSilent = true});
  ZPKErrorPtr error;
  EXPECT_EQ(stack->sendCommandString("first", 0.01, &error), std::nullopt);
  EXPECT_EQ(codeOf(error), 305);
  ASSERT_TRUE(device->waitForCommands(1));
  device->send("first answer=> ");
  ASSERT_TRUE(device->waitUntilAllIsSent());
  device->setBehaviour({.responses = {{"second", "second answer"}}});
  EXPECT_EQ(ask("second"), "first answer=> ");
  EXPECT_EQ(read(), "second answer=> ");
}

TEST_P(CommStackConversationTest, ATimeoutKeepsHalfAResponse) {
  connect();
  device->send("first ");
  ASSERT_TRUE(waitUntilHeld("first "));
  ZPKErrorPtr error;
  EXPECT_EQ(stack->readDataWithTimeout(0.01, nullptr, &error), nullptr);
  EXPECT_EQ(codeOf(error), 305);
  device->send("half=> ");
  EXPECT_EQ(read(), "first half=> ");
}

TEST_P(CommStackConversationTest, ADelimiterPassedToAReadAppliesOnlyOnce) {
  connect();
  device->send("user: pass=> \r\nrest");
  EXPECT_EQ(stack->readStringWithTimeout(kLong, ": "), "user: ");
  EXPECT_EQ(read(), "pass=> ");
  EXPECT_EQ(stack->readStringWithTimeout(kLong, "\n"), "\r\n");
  device->send("!");
  EXPECT_EQ(stack->readStringWithTimeout(kLong, "!"), "rest!");
}

TEST_P(CommStackConversationTest, ANewDelimiterTakesEffectWithoutReopening) {
  connect();
  device->send("a=> b#");
  EXPECT_EQ(read(), "a=> ");
  EXPECT_TRUE(stack->setDelimiter("#"));
  EXPECT_EQ(read(), "b#");
}

TEST_P(CommStackConversationTest, WithoutADelimiterReadsReturnBytesAsTheyArrive) {
  connect();
  stack->setDelimiter(std::nullopt);
  std::string all;
  for (const char* part : {"a=> b", "c", "=> "}) {
    device->send(part);
    const auto bytes = read();
    ASSERT_TRUE(bytes.has_value());
    all += *bytes;
  }
  while (all.size() < 9) all += read().value_or("nothing came");
  EXPECT_EQ(all, "a=> bc=> ");
}

TEST_P(CommStackConversationTest, FourMebibytesArriveWholeAndInOrder) {
  std::string response;
  for (int line = 0; response.size() < (4U << 20); ++line) {
    response += "line " + std::to_string(line) + " > = >> ==\r\n";
  }
  connect({.responses = {{"dump", response}}});
  const auto answer = stack->sendCommandString("dump", 4 * kLong);
  ASSERT_TRUE(answer.has_value());
  EXPECT_TRUE(*answer == response + "=> ") << answer->size() << " bytes";
  EXPECT_EQ(ask(""), "=> ");
}

TEST_P(CommStackConversationTest, ALongCommandIsSentWhole) {
  const std::string command(1U << 20, 'c');
  connect({.respond = [](const std::string& got) { return std::to_string(got.size()); }});
  EXPECT_EQ(stack->sendCommandString(command, 4 * kLong), "1048576=> ");
}

TEST_P(CommStackConversationTest, AFloodDoesNotKeepTheStackFromClosing) {
  connect({.floods = true});
  // On a crowded machine the flood may begin later than the first read ends.
  EXPECT_TRUE(waitFor([this] {
    ZPKErrorPtr error;
    EXPECT_EQ(stack->readDataWithTimeout(0.01, nullptr, &error), nullptr);
    EXPECT_EQ(codeOf(error), 305);
    return !heldBytes().empty();
  }));
  EXPECT_TRUE(stack->setDelimiter("\r\n"));
  for (int line = 0; line < 100; ++line) {
    const auto text = read();
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(text->find("\r\n"), text->size() - 2);
  }
  EXPECT_TRUE(stack->writeString("stop"));
  EXPECT_TRUE(device->waitForCommands(1));
  EXPECT_TRUE(stack->close());
  EXPECT_EQ(heldBytes(), "");
}

TEST_P(CommStackConversationTest, EveryByteArrivesUnchanged) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  connect();
  device->send(all + "=> ");
  EXPECT_EQ(bytesOf(stack->readDataWithTimeout(kLong, nullptr)), all + "=> ");
  stack->setLineTerminator(std::nullopt);
  EXPECT_TRUE(stack->writeData(dataOf(all)));
  EXPECT_TRUE(device->waitForReceived(all));
}

TEST_P(CommStackConversationTest, NulBytesAreTextAndOtherBytesAreNot) {
  connect({.responses = {{"nul", std::string("a\0b", 3)}, {"bad", "\xFF\xFE"}}});
  EXPECT_EQ(ask("nul"), std::string("a\0b=> ", 6));
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(ask("bad", &error), std::nullopt);
  expectFailure(
      error, log,
      commStackFailure(306,
                       "Response returned cannot be converted to string using ZSUTF8StringEncoding",
                       "sendCommandString:timeout:error:"));
  EXPECT_EQ(bytesOf(stack->sendCommandData(dataOf("bad"), kLong)), "\xFF\xFE=> ");
  EXPECT_EQ(ask("nul"), std::string("a\0b=> ", 6));
}

TEST_P(CommStackConversationTest, FormatDirectivesFromTheDeviceAreOnlyText) {
  connect({.echoes = true, .responses = {{kFormatText, kFormatText}}});
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval(kFormatText, kLong),
            kFormatText + std::string("=> "));
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern("%s%s%n$");
  ZPKErrorPtr error;
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval(kFormatText, regex, kLong, &error),
            std::nullopt);
  expectFailure(error, log,
                commStackFailure(308,
                                 "Unable to parse response\nregex:%s%s%n$\nresponse:" +
                                     std::string(kFormatText) + "=> \n",
                                 "sendCommandStringWithEchoRemoval:regex:timeout:error:"));
}

TEST_P(CommStackConversationTest, CommandsOfSeveralThreadsGetTheirOwnResponses) {
  connect({.respond = [](const std::string& command) { return "[" + command + "]"; }});
  std::vector<std::thread> threads;
  for (int talker = 0; talker < 3; ++talker) {
    threads.emplace_back([this, talker] {
      for (int round = 0; round < 30; ++round) {
        const std::string command = std::to_string(talker) + "-" + std::to_string(round);
        EXPECT_EQ(ask(command), "[" + command + "]=> ");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(device->commands().size(), 90U);
}

}  // namespace
