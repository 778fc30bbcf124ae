// Comm logger stacks that record simulated devices over a pseudo-terminal, TCP and a unix socket.

#include <unistd.h>

#include <filesystem>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Stacks/CommStackFixture.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/ScriptedStack.h"
#include "Support/TemporaryFolder.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class CommLoggerStackRecordingTest : public testing::TestWithParam<SimulatedDevice::Kind> {
 protected:
  using Kind = SimulatedDevice::Kind;

  void SetUp() override { ASSERT_TRUE(recorder->setLogFilePath(cutPath, rawPath)); }

  bool isTerminal() const { return GetParam() == Kind::kTerminal; }

  /// Creates a device, and the recorder's chain to it, which is open afterwards.
  void connect(SimulatedDevice::Behaviour behaviour = SimulatedDevice::Behaviour()) {
    device = std::make_unique<SimulatedDevice>(GetParam(), std::move(behaviour));
    ASSERT_TRUE(recorder->createStackWithURL(device->url()));
    open();
  }

  void open() {
    // A terminal that somebody else still holds open stays exclusive after a close.
    if (isTerminal()) device->liftExclusiveHold();
    ZPKErrorPtr error;
    ASSERT_TRUE(recorder->open(&error)) << descriptionOf(error);
    if (!isTerminal()) {
      ASSERT_TRUE(device->waitForConnections(++connectionsMade));
    }
  }

  /// Makes the line usable again after the device has gone away, which takes a terminal with it.
  void reconnect() {
    if (isTerminal()) {
      connect();
    } else {
      open();
    }
  }

  std::string rawText() const { return joinedTextOfLog(rawPath, "pre---read"); }
  std::string cutText() const { return joinedTextOfLog(cutPath, "post--read"); }

  bool waitForRawText(const std::string& text) const {
    return waitFor([&] { return rawText() == text; });
  }
  bool waitForCutText(const std::string& text) const {
    return waitFor([&] { return cutText() == text; });
  }
  bool waitUntilLost() const {
    return waitFor([&] { return recorder->isOpen() == 0; });
  }

  LogCapture log;
  TemporaryFolder folder;
  const std::string cutPath = folder.pathOf("cut.log");
  const std::string rawPath = folder.pathOf("raw.log");
  std::unique_ptr<SimulatedDevice> device;
  size_t connectionsMade = 0;
  ZPKCommLoggerStackPtr recorder = ZPKCommLoggerStack::init();
};

INSTANTIATE_TEST_SUITE_P(, CommLoggerStackRecordingTest, allLineKinds(), lineKindName);

TEST_P(CommLoggerStackRecordingTest, AStartedProgramInheritsNothing) {
  const std::set<int> before = openDescriptors();
  connect();
  const std::set<int> added = descriptorsSince(before);
  EXPECT_GE(added.size(), 3U);  // the line and two files
  EXPECT_THAT(inheritedOf(added), IsEmpty());
}

TEST_P(CommLoggerStackRecordingTest, AnEntryIsWrittenInItsExactForm) {
  recorder->setDelimiter("\n");
  connect();
  device->send("booting\r\n");
  ASSERT_TRUE(waitForCutText("booting"));
  ASSERT_TRUE(recorder->close());
  const auto lines = linesOfLog(cutPath);
  ASSERT_EQ(lines.size(), 2U);
  const std::string prefix = " <post--read>[" + std::to_string(::getpid()) + "]: ";
  // Both lines are one entry, and so have the same time.
  EXPECT_EQ(contentsOfFile(cutPath),
            "\n" + lines[0].timestamp + prefix + "booting\n" + lines[0].timestamp + prefix);
}

TEST_P(CommLoggerStackRecordingTest, NothingIsEverSent) {
  connect();
  device->send("login: ");
  ASSERT_TRUE(waitForCutText("login: "));
  ASSERT_TRUE(recorder->close());
  EXPECT_EQ(device->received(), "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(CommLoggerStackRecordingTest, ATricklingLineIsOneCutEntryAndManyRaw) {
  recorder->setDelimiter(";");
  connect();
  const std::string text = "one;two;thr";
  std::vector<std::string> entries;
  for (const char byte : text) {
    device->send(std::string(1, byte));
    entries.push_back(std::string("pre---read: ") + byte);
    ASSERT_TRUE(waitForRawText(text.substr(0, entries.size())));
  }
  ASSERT_TRUE(recorder->close());
  EXPECT_EQ(textsOfLog(rawPath), entries);
  EXPECT_THAT(textsOfLog(cutPath), ElementsAre("post--read: one;", "post--read: two;"));
}

TEST_P(CommLoggerStackRecordingTest, LinesThatArriveTogetherAreSeparateEntries) {
  recorder->setDelimiter("\n");
  connect();
  device->send("one\ntwo\n\nfour\nrest");
  ASSERT_TRUE(waitForCutText("onetwofour"));
  ASSERT_TRUE(recorder->close());
  EXPECT_THAT(textsOfLog(cutPath),
              ElementsAre("post--read: one", "post--read: ", "post--read: two", "post--read: ",
                          "post--read: ", "post--read: ", "post--read: four", "post--read: "));
  EXPECT_EQ(rawText(), "onetwofourrest");
}

TEST_P(CommLoggerStackRecordingTest, ADelimiterSetWhileRecordingSplitsTheHeldBytes) {
  recorder->setDelimiter("\n");
  connect();
  device->send("one;two");
  ASSERT_TRUE(waitForRawText("one;two"));
  EXPECT_THAT(contentsOfFile(cutPath), IsEmpty());
  recorder->setDelimiter(";");
  ASSERT_TRUE(waitForCutText("one;"));
  device->send(";");
  ASSERT_TRUE(waitForCutText("one;two;"));
  EXPECT_TRUE(recorder->close());
}

TEST_P(CommLoggerStackRecordingTest, ALongReportIsRecordedWhole) {
  std::string report;
  std::string withoutBreaks;
  for (int line = 0; report.size() < (256U << 10); ++line) {
    const std::string text = "line " + std::to_string(line) + " 100%@ > \u20AC";
    report += text + "\n";
    withoutBreaks += text;
  }
  recorder->setDelimiter("\n");
  connect();
  device->send(report);
  ASSERT_TRUE(device->waitUntilAllIsSent());
  ASSERT_TRUE(waitFor([&] { return cutText().size() == withoutBreaks.size(); }));
  ASSERT_TRUE(recorder->close());
  EXPECT_TRUE(cutText() == withoutBreaks);
}

TEST_P(CommLoggerStackRecordingTest, AFloodDoesNotKeepTheRecorderFromClosing) {
  recorder->setDelimiter("\r\n");
  connect({.floods = true});
  // The test could not read to the end of a log that grows like this.
  ASSERT_TRUE(waitFor([&] { return std::filesystem::file_size(cutPath) > 0; }));
  ASSERT_TRUE(recorder->close());
  EXPECT_EQ(recorder->isOpen(), 0);
  const std::string cut = cutText();
  EXPECT_THAT(cut, StartsWith("the device talks without an end"));
  EXPECT_TRUE(rawText().starts_with(cut));
}

TEST_P(CommLoggerStackRecordingTest, ADeviceThatHangsUpLeavesItsBytesRecorded) {
  recorder->setDelimiter("\n");
  connect();
  device->send("whole\nhalf");
  ASSERT_TRUE(waitForRawText("wholehalf"));
  device->hangUp();
  ASSERT_TRUE(waitUntilLost());
  EXPECT_THAT(log.texts(), ElementsAre(StartsWith("Read failed with error ")));
  ZPKErrorPtr error;
  // The reader reports its error a moment after it has ended.
  ASSERT_TRUE(waitFor([&] {
    return !recorder->close(&error) && descriptionOf(error).starts_with("Read failed with error ");
  }));
  EXPECT_EQ(codeOf(error), 2);
  EXPECT_TRUE(waitForCutText("whole"));
}

TEST_P(CommLoggerStackRecordingTest, OnlyAReopenedChainKeepsAHalfLine) {
  recorder->setDelimiter("\n");
  connect();
  device->send("half");
  ASSERT_TRUE(waitForRawText("half"));
  device->hangUp();
  ASSERT_TRUE(waitUntilLost());
  reconnect();
  device->send(" and whole\n");
  EXPECT_TRUE(waitForCutText(isTerminal() ? " and whole" : "half and whole"));
  EXPECT_TRUE(recorder->close());
}

TEST_P(CommLoggerStackRecordingTest, TheLogsGoOnThroughReconnections) {
  recorder->setDelimiter("\n");
  connect();
  const size_t descriptors = openDescriptors().size();
  std::string all;
  for (int round = 0; round < 10; ++round) {
    const std::string text = "round " + std::to_string(round);
    device->send(text + "\n");
    all += text;
    ASSERT_TRUE(waitForCutText(all));
    ASSERT_TRUE(waitForRawText(all));
    device->hangUp();
    ASSERT_TRUE(waitUntilLost());
    reconnect();
  }
  // The thread that detected the end of a line can hold its files a moment longer.
  EXPECT_TRUE(waitFor([&] { return openDescriptors().size() == descriptors; }));
  EXPECT_TRUE(recorder->close());
  EXPECT_EQ(cutText(), all);
}

TEST_P(CommLoggerStackRecordingTest, BytesOfAClosedRecordingStayOutOfTheNext) {
  recorder->setDelimiter("\n");
  connect();
  device->send("half");
  ASSERT_TRUE(waitForRawText("half"));
  ASSERT_TRUE(recorder->close());
  open();
  device->send("whole\n");
  EXPECT_TRUE(waitForCutText("whole"));
  EXPECT_TRUE(recorder->close());
}

TEST_P(CommLoggerStackRecordingTest, TwoRecordersShareOneFileWithoutMixingTheirEntries) {
  recorder = ZPKCommLoggerStack::init();
  ASSERT_TRUE(recorder->setLogFilePath(cutPath, std::nullopt));
  recorder->setDelimiter("\n");
  connect();
  const auto otherDevice = std::make_unique<SimulatedDevice>(GetParam());
  const auto other = ZPKCommLoggerStack::init();
  ASSERT_TRUE(other->setLogFilePath(cutPath, std::nullopt));
  other->setDelimiter("\n");
  ASSERT_TRUE(other->createStackWithURL(otherDevice->url()));
  ASSERT_TRUE(other->open());
  for (int line = 0; line < 100; ++line) {
    device->send("here is the one\n");
    otherDevice->send("and here the other\n");
  }
  const auto count = [&](const std::string& text) {
    size_t found = 0;
    for (const LogFileLine& line : linesOfLog(cutPath)) found += line.text == text ? 1 : 0;
    return found;
  };
  EXPECT_TRUE(waitFor(
      [&] { return count("here is the one") == 100 && count("and here the other") == 100; }));
  EXPECT_TRUE(recorder->close());
  EXPECT_TRUE(other->close());
  // Each ends in a line feed, and nothing else is there.
  EXPECT_EQ(count(""), 200U);
  EXPECT_EQ(linesOfLog(cutPath).size(), 400U);
}

}  // namespace
