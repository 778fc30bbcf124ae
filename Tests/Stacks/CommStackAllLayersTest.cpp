// Whole comm stacks with every optional layer, the background reader, filters and both logs, that
// talk to simulated devices over a pseudo-terminal, TCP and a unix socket.

#include <unistd.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "Stacks/CommStackFixture.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/ScriptedStack.h"
#include "Support/TemporaryFolder.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

class CommStackAllLayersTest : public CommStackFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(stack->setActiveChannelOnOff(true, nullptr));
    ASSERT_TRUE(stack->setReadFiltersHex({"1B5B33326D", "1b5b306d"}));
    ASSERT_TRUE(stack->setReadFilters({"[noise]"}));
    ASSERT_TRUE(stack->setLogFilePath(postPath, prePath));
  }

  std::string rawTextRead() const { return joinedTextOfLog(prePath, "pre---read"); }
  std::string rawTextWritten() const { return joinedTextOfLog(prePath, "pre--write"); }

  /// The background reader has detected the end of the line.
  bool waitUntilLost() {
    return waitFor([&] { return stack->isOpen() == 0; });
  }

  /// Makes the line usable again after the device has gone away, which takes a terminal with it.
  void reconnect() {
    if (isTerminal()) {
      connect();
    } else {
      open();
    }
  }

  TemporaryFolder folder;
  const std::string postPath = folder.pathOf("post.log");
  const std::string prePath = folder.pathOf("pre.log");
};

INSTANTIATE_TEST_SUITE_P(, CommStackAllLayersTest, allLineKinds(), lineKindName);

// The whole file, with a T for each timestamp and a P for this process.
std::string shapeOfLog(const std::string& path) {
  static const std::regex kTimestamp(
      "\n[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ");
  static const std::regex kProcess(">\\[" + std::to_string(::getpid()) + "\\]: ");
  return std::regex_replace(std::regex_replace(contentsOfFile(path), kTimestamp, "\nT "), kProcess,
                            ">[P]: ");
}

TEST_P(CommStackAllLayersTest, TheOuterLogIsTheConversationInItsExactForm) {
  connect({.echoes = true, .responses = {{"status", "\x1B[32mok\x1B[0m[noise]\r\nfine\r"}}});
  EXPECT_EQ(ask("status"), "status\nok\r\nfine\r=> ");
  EXPECT_EQ(ask(""), "\n=> ");
  ASSERT_TRUE(stack->close());
  // Any line break begins a line of the log. An empty command has no other line break than the line
  // terminator, which is added further down.
  EXPECT_EQ(shapeOfLog(postPath),
            "\nT <post-write>[P]: status"
            "\nT <post--read>[P]: status\nT <post--read>[P]: ok\nT <post--read>[P]: fine"
            "\nT <post--read>[P]: => "
            "\nT <post--read>[P]: \nT <post--read>[P]: => ");
}

TEST_P(CommStackAllLayersTest, TheRawLogIsWhatPassesOnTheWire) {
  connect({.responses = {{"status", "\x1B[32mok\x1B[0m[noise]\r\n"}, {"next", "%s%n%@"}}});
  EXPECT_EQ(ask("status"), "ok\r\n=> ");
  EXPECT_EQ(ask("next"), "%s%n%@=> ");
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(rawTextWritten(), "statusnext");
  EXPECT_EQ(rawTextRead(), "\x1B[32mok\x1B[0m[noise]=> %s%n%@=> ");
  // A written line ends in the line terminator, which appears as an empty line of the log.
  const auto texts = textsOfLog(prePath);
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[0], "pre--write: status");
  EXPECT_EQ(texts[1], "pre--write: ");
}

TEST_P(CommStackAllLayersTest, AnEchoIsRemovedButStaysInBothLogs) {
  connect({.echoes = true, .responses = {{"temp", "[noise]21 \u00B0C\n"}}});
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern("(\\d+) .C");
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("temp", kLong), "21 \u00B0C\n=> ");
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("temp", regex, kLong), "21");
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(joinedTextOfLog(postPath, "post-write"), "temptemp");
  EXPECT_EQ(joinedTextOfLog(postPath, "post--read"), "temp21 \u00B0C=> temp21 \u00B0C=> ");
  EXPECT_EQ(rawTextRead(), "temp[noise]21 \u00B0C=> temp[noise]21 \u00B0C=> ");
}

TEST_P(CommStackAllLayersTest, UnreadBytesAreOnlyInTheRawLog) {
  connect();
  device->send("unasked=> ");
  ASSERT_TRUE(waitFor([&] { return rawTextRead() == "unasked=> "; }));
  EXPECT_EQ(contentsOfFile(postPath), "");
  EXPECT_EQ(read(), "unasked=> ");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: unasked=> "));
}

TEST_P(CommStackAllLayersTest, BytesThatAreNotTextAppearInHexadecimal) {
  connect();
  device->send("\xFF\x01 a=> ");
  EXPECT_EQ(bytesOf(stack->readDataWithTimeout(kLong, nullptr)), "\xFF\x01 a=> ");
  ASSERT_TRUE(stack->writeData(dataOf("\xFE")));
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: <ff01> a=> ", "post-write: <fe>"));
}

TEST_P(CommStackAllLayersTest, ACommandWithoutAResponseLogsOnlyItself) {
  connect({.isSilent = true});
  ZPKErrorPtr error;
  EXPECT_EQ(stack->sendCommandString("anybody?", 0.05, &error), std::nullopt);
  EXPECT_EQ(codeOf(error), 305);
  EXPECT_EQ(stack->isOpen(), 1);
  ASSERT_TRUE(device->waitForCommands(1));
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post-write: anybody?"));
  EXPECT_THAT(textsOfLog(prePath), ElementsAre("pre--write: anybody?", "pre--write: "));
}

TEST_P(CommStackAllLayersTest, ATricklingResponseIsOneEntryOfTheOuterLog) {
  connect({.responses = {{"ask", "\x1B[32m[noi[noise]se]"}},
           .pause = std::chrono::milliseconds(1),
           .trickles = true});
  // Text that is joined when a filter removes its pattern is not filtered again.
  EXPECT_EQ(ask("ask"), "[noise]=> ");
  ASSERT_TRUE(stack->close());
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post-write: ask", "post--read: [noise]=> "));
  EXPECT_EQ(rawTextRead(), "\x1B[32m[noi[noise]se]=> ");
}

TEST_P(CommStackAllLayersTest, BytesSentOneByOneAreSeparateRawEntries) {
  connect();
  const std::string response = "a[noise]b=> ";
  std::vector<std::string> entries;
  for (const char byte : response) {
    device->send(std::string(1, byte));
    entries.push_back(std::string("pre---read: ") + byte);
    ASSERT_TRUE(waitFor([&] { return rawTextRead().size() == entries.size(); }));
  }
  EXPECT_EQ(read(), "ab=> ");
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(textsOfLog(prePath), entries);
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post--read: ab=> "));
}

TEST_P(CommStackAllLayersTest, AFloodIsReadLineByLineAndLogged) {
  stack->setDelimiter("\r\n");
  connect({.floods = true});
  std::string lines;
  for (int line = 0; line < 20; ++line) {
    const auto text = read();
    ASSERT_TRUE(text.has_value());
    EXPECT_THAT(*text, EndsWith("\r\n"));
    lines += text->substr(0, text->size() - 2);
  }
  device->setBehaviour({});
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(joinedTextOfLog(postPath, "post--read"), lines);
  EXPECT_TRUE(rawTextRead().starts_with(lines));
}

TEST_P(CommStackAllLayersTest, BytesBeforeAHangUpAreLogged) {
  connect({.responses = {{"ask", "answer"}}, .hangsUpAfter = 3});
  EXPECT_EQ(ask("ask"), std::nullopt);
  ASSERT_TRUE(waitUntilLost());
  ZPKErrorPtr error;
  // The reader reports its error a moment after it has ended.
  ASSERT_TRUE(waitFor([&] {
    return !stack->close(&error) && descriptionOf(error).starts_with("Read failed with error ");
  }));
  EXPECT_EQ(codeOf(error), 2);
  // A terminal that hangs up discards the bytes that were not read yet.
  if (!isTerminal()) {
    EXPECT_TRUE(waitFor([&] { return rawTextRead() == "ans"; }));
  }
  device->setBehaviour({});
  reconnect();
  const auto answer = ask("again");
  ASSERT_TRUE(answer.has_value());
  EXPECT_THAT(*answer, EndsWith("=> "));
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(joinedTextOfLog(postPath, "post-write"), "askagain");
}

TEST_P(CommStackAllLayersTest, TheLogsContinueAcrossReconnections) {
  connect({.respond = [](const std::string& command) { return command + "\n"; }});
  const size_t descriptors = openDescriptors().size();
  std::vector<std::string> conversation;
  std::string wire;
  for (int round = 0; round < 10; ++round) {
    const std::string command = "round " + std::to_string(round);
    EXPECT_EQ(ask(command), command + "\n=> ");
    conversation.insert(conversation.end(),
                        {"post-write: " + command, "post--read: " + command, "post--read: => "});
    wire += command + "=> ";
    ASSERT_TRUE(waitFor([&] {
      return rawTextRead() == wire && textsOfLog(postPath).size() == conversation.size();
    }));
    device->hangUp();
    ASSERT_TRUE(waitUntilLost());
    reconnect();
    device->setBehaviour({.respond = [](const std::string& text) { return text + "\n"; }});
  }
  // The thread that detected the end of a line can hold its files a moment longer.
  EXPECT_TRUE(waitFor([&] { return openDescriptors().size() == descriptors; }));
  ASSERT_TRUE(stack->close());
  EXPECT_EQ(textsOfLog(postPath), conversation);
  EXPECT_EQ(rawTextRead(), wire);
}

TEST_P(CommStackAllLayersTest, TheLogsGrowAcrossSeveralOpens) {
  connect();
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(ask("ask"), "=> ");
    ASSERT_TRUE(stack->close());
    if (round < 2) open();
  }
  EXPECT_EQ(joinedTextOfLog(postPath, "post-write"), "askaskask");
  EXPECT_EQ(joinedTextOfLog(postPath, "post--read"), "=> => => ");
  EXPECT_EQ(rawTextRead(), "=> => => ");
}

TEST_P(CommStackAllLayersTest, AStackDestroyedWhileOpenLeavesItsLogsComplete) {
  connect();
  EXPECT_EQ(ask("last"), "=> ");
  stack = nullptr;
  EXPECT_THAT(textsOfLog(postPath), ElementsAre("post-write: last", "post--read: => "));
  EXPECT_EQ(rawTextWritten(), "last");
  EXPECT_EQ(rawTextRead(), "=> ");
}

TEST_P(CommStackAllLayersTest, CommandsOfSeveralThreadsAreLoggedWithTheirResponses) {
  connect({.respond = [](const std::string& command) { return "to " + command; }});
  std::vector<std::thread> threads;
  for (int talker = 0; talker < 3; ++talker) {
    threads.emplace_back([this, talker] {
      for (int round = 0; round < 10; ++round) {
        const std::string command = std::to_string(talker) + "-" + std::to_string(round);
        EXPECT_EQ(ask(command), "to " + command + "=> ");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(stack->close());
  const auto lines = linesOfLog(postPath);
  ASSERT_EQ(lines.size(), 60U);
  for (size_t at = 0; at < lines.size(); at += 2) {
    EXPECT_EQ(lines[at].identifier, "post-write");
    EXPECT_EQ(lines[at + 1].identifier, "post--read");
    EXPECT_EQ(lines[at + 1].text, "to " + lines[at].text + "=> ");
  }
}

TEST_P(CommStackAllLayersTest, AMissingLogFolderLeavesTheDeviceAlone) {
  ASSERT_TRUE(stack->setLogFilePath(folder.pathOf("missing/post.log"), prePath));
  device = std::make_unique<SimulatedDevice>(GetParam(), Behaviour());
  ASSERT_TRUE(stack->createStackWithURL(device->url()));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->openWithTimeout(kLong, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.texts(), ElementsAre(StartsWith("unable to open file at path [")));
  EXPECT_EQ(device->connections(), 0U);
  EXPECT_EQ(stack->isOpen(), 0);
  EXPECT_THAT(contentsOfFile(prePath), IsEmpty());
}

}  // namespace
