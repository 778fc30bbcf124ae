#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/HeldLogWrite.h"
#include "Support/HookedChannel.h"
#include "Support/LogFile.h"
#include "Support/LoggingChannelFixture.h"
#include "Support/ProcessThreads.h"
#include "Support/SimulatedDevice.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ZPILoggingChannelTest = LoggingChannelFixture;

// --- What is logged.

TEST_F(ZPILoggingChannelTest, ReadsAndWritesAreLoggedWithTheirDirection) {
  open();
  EXPECT_TRUE(write("ver"));
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
  for (const LogFileLine& line : linesOfLog(_path)) {
    EXPECT_EQ(line.process, std::to_string(::getpid()));
  }
}

TEST_F(ZPILoggingChannelTest, APrefixStartsEveryLineAndEndsTheChunk) {
  open();
  write("A\r\nB\rC\n");
  _channel->close(nullptr);
  EXPECT_THAT(texts(),
              ElementsAre("pre--write: A", "pre--write: B", "pre--write: C", "pre--write: "));
  EXPECT_EQ(contents().front(), '\n');
  EXPECT_EQ(contents().back(), ' ');
  std::set<std::string> timestamps;
  for (const LogFileLine& line : linesOfLog(_path)) timestamps.insert(line.timestamp);
  EXPECT_EQ(timestamps.size(), 1U);
}

TEST_F(ZPILoggingChannelTest, ALineInTwoPiecesIsLoggedAsTwoLines) {
  open();
  readOf("2.");
  readOf("33\n");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre---read: 2.", "pre---read: 33", "pre---read: "));
}

TEST_F(ZPILoggingChannelTest, BinaryBytesAreLoggedInHexadecimalAndPassUnchanged) {
  open();
  const std::string bytes("\xFF\0%@ %n\xFE", 8);
  EXPECT_EQ(readOf(bytes)->view(), bytes);
  write("%s\xFF");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre---read: <ff00>%@ %n<fe>", "pre--write: %s<ff>"));
  EXPECT_THAT(_below->writes(), ElementsAre("%s\xFF"));
}

TEST_F(ZPILoggingChannelTest, ATimedOutReadLeavesNoTrace) {
  open();
  const ZPKDataPtr data = readOf("");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  _channel->close(nullptr);
  EXPECT_EQ(contents(), "");
}

TEST_F(ZPILoggingChannelTest, EmptyAndNullWritesAreForwardedAndNotLogged) {
  open();
  EXPECT_TRUE(_channel->write(ZPKData::data(), nullptr));
  EXPECT_TRUE(_channel->write(nullptr, nullptr));
  _channel->close(nullptr);
  EXPECT_EQ(contents(), "");
  EXPECT_THAT(_below->writes(), ElementsAre("", std::nullopt));
}

TEST_F(ZPILoggingChannelTest, AFailedReadLeavesNoTrace) {
  open();
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 5, {});
  _below->addFailedRead(fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(_channel->readWithTimeout(0.5, &error), nullptr);
  EXPECT_EQ(error, fromBelow);
  EXPECT_THAT(_below->readTimeouts(), ElementsAre(0.5));
  _channel->close(nullptr);
  EXPECT_EQ(contents(), "");
}

TEST_F(ZPILoggingChannelTest, AFailedWriteIsLogged) {
  open();
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 5, {});
  _below->setWriteResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->write(dataOf("ver"), &error));
  EXPECT_EQ(error, fromBelow);
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, AWriteIsLoggedBeforehandAndAReadAfterwards) {
  const auto below = std::make_shared<HookedChannel>();
  const auto channel = ZPILoggingChannel::initWithLogFilePath(_path, "pre-", below);
  channel->setSynchronousLogging(true);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  std::vector<std::string> atWrite;
  std::vector<std::string> atRead;
  below->onWrite = [&] { atWrite = texts(); };
  below->onRead = [&] { atRead = texts(); };
  below->toRead = dataOf("2.33");
  channel->write(dataOf("ver"), nullptr);
  channel->readWithTimeout(1.0, nullptr);
  EXPECT_THAT(atWrite, ElementsAre("pre--write: ver"));
  EXPECT_THAT(atRead, ElementsAre("pre--write: ver"));
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
}

TEST_F(ZPILoggingChannelTest, TheIdentifierIsLoggedUnchanged) {
  const auto channel = ZPILoggingChannel::initWithLogFilePath(_path, "%@ %s", _below);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  channel->write(dataOf("ver"), nullptr);
  channel->logData(dataOf("mem"), "");
  channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("%@ %s-write: ver", ": mem"));
}

// --- Synchronous and not.

TEST_F(ZPILoggingChannelTest, LoggingIsAsynchronousUntilToldOtherwise) {
  const auto channel = ZPILoggingChannel::initWithLogFilePath(_path, "pre-", _below);
  EXPECT_FALSE(channel->synchronousLogging());
  channel->setSynchronousLogging(true);
  EXPECT_TRUE(channel->synchronousLogging());
}

TEST_F(ZPILoggingChannelTest, SynchronousLinesAreInTheFileWhenTheCallReturns) {
  _channel->setSynchronousLogging(true);
  open();
  write("ver");
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
  readOf("2.33");
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
}

TEST_F(ZPILoggingChannelTest, SynchronousLoggingWaitsForTheFile) {
  _channel->setSynchronousLogging(true);
  open();
  HeldLogWrite held;
  auto writing = std::async(std::launch::async, [this] { write("ver"); });
  EXPECT_TRUE(held.waitUntilHeld());
  EXPECT_THAT(_below->writes(), IsEmpty());
  held.release();
  writing.get();
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, AsynchronousLoggingDelaysNoCall) {
  open();
  HeldLogWrite held;
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(write("ver"));
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_EQ(contents(), "");
  held.release();
  _channel->close(nullptr);
  EXPECT_EQ(texts().size(), 101U);
}

TEST_F(ZPILoggingChannelTest, CloseWritesEverythingToTheFile) {
  open();
  std::vector<std::string> expected;
  for (int i = 0; i < 2000; ++i) {
    write(std::to_string(i));
    expected.push_back("pre--write: " + std::to_string(i));
  }
  _channel->close(nullptr);
  EXPECT_EQ(texts(), expected);
}

TEST_F(ZPILoggingChannelTest, ChunksKeepTheirOrderWhenTheModeChanges) {
  open();
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    _channel->setSynchronousLogging(i % 3 == 0);
    write(std::to_string(i));
    expected.push_back("pre--write: " + std::to_string(i));
    if (_channel->synchronousLogging()) {
      ASSERT_EQ(texts(), expected);
    }
  }
  _channel->close(nullptr);
  EXPECT_EQ(texts(), expected);
}

// --- Without the file or its thread.

TEST_F(ZPILoggingChannelTest, WithoutAnOpenFileNothingIsLoggedAndNothingFails) {
  EXPECT_TRUE(write("before"));
  EXPECT_EQ(readOf("before")->view(), "before");
  open();
  write("while");
  _channel->close(nullptr);
  _channel->logData(dataOf("after"), "id");
  _channel->setSynchronousLogging(true);
  EXPECT_TRUE(write("after"));
  EXPECT_THAT(texts(), ElementsAre("pre--write: while"));
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPILoggingChannelTest, TheFileHandleCanBeReadAndReplaced) {
  open();
  const ZPILogFileHandlePtr handle = _channel->fileHandle();
  _channel->setFileHandle(nullptr);
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  _channel->setSynchronousLogging(true);
  write("lost");
  _channel->setFileHandle(handle);
  write("kept");
  EXPECT_THAT(texts(), ElementsAre("pre--write: kept"));
}

TEST_F(ZPILoggingChannelTest, WithoutAThreadTheCallsWriteTheLog) {
  {
    const RefusedThreads refused;
    open();
  }
  write("ver");
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
  open();
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  EXPECT_TRUE(_channel->close(nullptr));
}

// --- Reset.

TEST_F(ZPILoggingChannelTest, ResetIsForwardedAndLeavesTheFileAlone) {
  open();
  write("ver");
  EXPECT_TRUE(_channel->reset(nullptr));
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 1, {});
  _below->setResetResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->reset(&error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_NE(_channel->fileHandle(), nullptr);
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

// --- A reader and a writer at the same time.

TEST_F(ZPILoggingChannelTest, AReaderAndAWriterCanRunTogether) {
  constexpr int kCount = 500;
  open();
  for (int i = 0; i < kCount; ++i) _below->addRead("in " + std::to_string(i));
  std::thread writer([this] {
    for (int i = 0; i < kCount; ++i) {
      write("out " + std::to_string(i));
      _channel->setSynchronousLogging(i % 100 == 99);
    }
  });
  for (int i = 0; i < kCount; ++i) {
    EXPECT_NE(_channel->readWithTimeout(1.0, nullptr), nullptr);
    EXPECT_NE(_channel->fileHandle(), nullptr);
  }
  writer.join();
  _channel->close(nullptr);
  int in = 0;
  int out = 0;
  for (const std::string& text : texts()) {
    if (text == "pre---read: in " + std::to_string(in)) {
      ++in;
    } else {
      EXPECT_EQ(text, "pre--write: out " + std::to_string(out));
      ++out;
    }
  }
  EXPECT_EQ(in, kCount);
  EXPECT_EQ(out, kCount);
}

// --- Over real lines.

class ZPILoggingChannelDeviceTest : public testing::TestWithParam<SimulatedDevice::Kind> {};

TEST_P(ZPILoggingChannelDeviceTest, TheConversationIsInTheFile) {
  const TemporaryFolder folder;
  SimulatedDevice device(GetParam(), {.responses = {{"version", "2.33\r\n"}}});
  const ZPKDataChannelPtr channel = createLoggingChannel(
      createBaseChannelWithTransport(device.url()), folder.pathOf("log"), "pre-", false);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  ASSERT_TRUE(channel->write(dataOf("version\n")));
  std::string answer;
  EXPECT_TRUE(waitFor([&] {
    const ZPKDataPtr data = channel->readWithTimeout(0.1);
    if (data != nullptr) answer += data->view();
    return data == nullptr || answer.ends_with("=> ");
  }));
  EXPECT_EQ(answer, "2.33\r\n=> ");
  ASSERT_TRUE(channel->close());
  std::string written;
  std::string read;
  for (const LogFileLine& line : linesOfLog(folder.pathOf("log"))) {
    (line.identifier == "pre--write" ? written : read) += line.text + "|";
  }
  EXPECT_EQ(written, "version||");
  // The answer may have arrived in several pieces.
  std::erase(read, '|');
  EXPECT_EQ(read, "2.33=> ");
}

INSTANTIATE_TEST_SUITE_P(Kinds, ZPILoggingChannelDeviceTest,
                         testing::Values(SimulatedDevice::Kind::kTerminal,
                                         SimulatedDevice::Kind::kTCP,
                                         SimulatedDevice::Kind::kUnix));

}  // namespace
