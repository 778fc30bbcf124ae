#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel Internal/ZPIEchoRemovalChannel.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/ProcessorTime.h"
#include "Support/ScriptedChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ZPIEchoRemovalChannelTest : public testing::Test {
 protected:
  explicit ZPIEchoRemovalChannelTest(const std::string& delimiter = "\r\n")
      : _channel(ZPIEchoRemovalChannel::initWithChannel(_below, dataOf(delimiter))) {}

  bool write(std::string_view bytes) { return _channel->write(dataOf(bytes)); }

  /// The result of a read when the channel below returns `bytes`; null for null.
  std::optional<std::string> readOf(std::string_view bytes) {
    _below->addRead(bytes);
    return read();
  }
  std::optional<std::string> read() {
    ZPKErrorPtr error = olderError();
    const ZPKDataPtr data = _channel->readWithTimeout(1.0, &error);
    EXPECT_EQ(error, olderError());
    if (data == nullptr) return std::nullopt;
    return std::string(data->view());
  }

  LogCapture _log;
  const std::shared_ptr<ScriptedChannel> _below = ScriptedChannel::make();
  const ZPKDataChannelPtr _channel;
};

// --- Echoes.

TEST_F(ZPIEchoRemovalChannelTest, TheEchoIsRemovedAndResponseAndPromptStay) {
  EXPECT_TRUE(write("ver\r\n"));
  EXPECT_EQ(readOf("ver\r\n2.33\r\n=> "), "2.33\r\n=> ");
  EXPECT_EQ(readOf(""), "");
  EXPECT_EQ(readOf("ver\r\n"), "ver\r\n");  // the echo is removed only once
}

TEST_F(ZPIEchoRemovalChannelTest, OnlyAnEchoGivesEmptyData) {
  write("ver\r\n");
  EXPECT_EQ(readOf("ver\r\n"), "");
}

TEST_F(ZPIEchoRemovalChannelTest, HalfAnEchoIsHeldUntilItsLineIsComplete) {
  write("version\r\n");
  EXPECT_EQ(readOf("ver"), "");
  EXPECT_EQ(readOf("sion\r"), "");
  EXPECT_EQ(readOf("\n2.33\r\n"), "2.33\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, ATimeoutWithoutAnAwaitedEchoIsEmptyData) {
  EXPECT_EQ(readOf("half a line"), "half a line");
  EXPECT_EQ(readOf(""), "");
}

TEST_F(ZPIEchoRemovalChannelTest, ATimeoutWithAnAwaitedEchoKeepsTheTail) {
  write("ver\r\n");
  EXPECT_EQ(readOf("ve"), "");
  EXPECT_EQ(readOf(""), "");
  EXPECT_EQ(readOf("r\r\n=> "), "=> ");
}

TEST_F(ZPIEchoRemovalChannelTest, WithoutEchoesNothingIsLostButTheTailIsHeld) {
  write("ver\r\n");
  EXPECT_EQ(readOf("2.33\r\nbuild 7\r\n=> "), "2.33\r\nbuild 7\r\n");
  EXPECT_EQ(readOf(""), "");
  write("mem\r\n");
  EXPECT_EQ(readOf("64k\r\n=> "), "=> 64k\r\n");  // the held prompt begins the next line
  EXPECT_EQ(readOf("more"), "");
}

TEST_F(ZPIEchoRemovalChannelTest, ResetForgetsTheEchoesOfADeviceThatNeverEchoes) {
  write("ver\r\n");
  EXPECT_EQ(readOf("2.33\r\n=> "), "2.33\r\n");
  EXPECT_TRUE(_channel->reset());
  EXPECT_EQ(readOf("=> "), "=> ");
}

TEST_F(ZPIEchoRemovalChannelTest, AnUnsolicitedLineBeforeTheEchoPasses) {
  write("ver\r\n");
  EXPECT_EQ(readOf("[warning] hot\r\nver\r\n2.33\r\n"), "[warning] hot\r\n2.33\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, ALineThatEqualsALaterWrittenLineIsData) {
  write("one\r\n");
  write("two\r\n");
  EXPECT_EQ(readOf("two\r\n"), "two\r\n");
  EXPECT_EQ(readOf("one\r\nthree\r\n"), "three\r\n");  // "two" is still awaited
  EXPECT_EQ(readOf("tail"), "");
  EXPECT_EQ(readOf("\r\ntwo\r\n"), "tail\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, ALineWithADifferentTerminatorIsNotAnEcho) {
  write("ver\r\n");
  EXPECT_EQ(readOf("ver\n2.33\r\n"), "ver\n2.33\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, ALineInADifferentCaseIsNotAnEcho) {
  write("ver\r\n");
  EXPECT_EQ(readOf("VER\r\n"), "VER\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, APartOfALineIsNotAnEcho) {
  write("ver\r\n");
  EXPECT_EQ(readOf("version\r\n"), "version\r\n");
  EXPECT_EQ(readOf("=> ver\r\n"), "=> ver\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, SeveralWritesMakeOneLine) {
  write("ve");
  EXPECT_EQ(readOf("=> "), "=> ");  // no line written yet, so no echo is awaited
  write("r\r");
  write("\n");
  EXPECT_EQ(readOf("ver\r\n2.33\r\n"), "2.33\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, OneWriteMakesSeveralLines) {
  write("one\r\ntwo\r\nthr");
  EXPECT_EQ(readOf("one\r\na\r\ntwo\r\nb\r\n"), "a\r\nb\r\n");
  EXPECT_EQ(readOf("thr"), "thr");
  write("ee\r\n");
  EXPECT_EQ(readOf("three\r\n"), "");
}

TEST_F(ZPIEchoRemovalChannelTest, EqualLinesAreRemovedOncePerWrite) {
  write("ver\r\nver\r\n");
  EXPECT_EQ(readOf("ver\r\nver\r\nver\r\n"), "ver\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, ALineThatIsOnlyTheDelimiterIsALine) {
  write("\r\n");
  EXPECT_EQ(readOf("\r\n\r\n=> "), "\r\n=> ");
}

TEST_F(ZPIEchoRemovalChannelTest, ADelimiterMayStraddleTwoReads) {
  write("ver\r\n");
  EXPECT_EQ(readOf("ver\r"), "");
  EXPECT_EQ(readOf("\n2.33\r"), "2.33\r");
  EXPECT_EQ(readOf("\n"), "\n");
}

TEST_F(ZPIEchoRemovalChannelTest, BytesOfAnyValueAreCompared) {
  const std::string line("\0\xFF%@ %s\r\n", 9);
  write(line);
  EXPECT_EQ(readOf(line + "\xFE\r\n"), "\xFE\r\n");
}

// The following bytes, in every sequence of reads in which they can arrive:
//
//     h i CR LF | v CR LF | o k CR LF | >
TEST_F(ZPIEchoRemovalChannelTest, EverySplitOfTheSameBytesGivesTheSameBytes) {
  for (const Chunks& chunks : everySplit("hi\r\nv\r\nok\r\n>")) {
    _channel->reset();
    write("v\r\n");
    std::string all;
    for (const std::string& chunk : chunks) all += *readOf(chunk);
    ASSERT_EQ(all, "hi\r\nok\r\n>") << pictureOf(chunks);
  }
}

TEST_F(ZPIEchoRemovalChannelTest, EverySplitOfTheSameWriteAwaitsTheSameLines) {
  for (const Chunks& chunks : everySplit("one\r\ntwo\r\n")) {
    _channel->reset();
    for (const std::string& chunk : chunks) write(chunk);
    ASSERT_EQ(readOf("one\r\n1\r\ntwo\r\n2\r\n=> "), "1\r\n2\r\n=> ") << pictureOf(chunks);
  }
}

// --- The contract.

TEST_F(ZPIEchoRemovalChannelTest, EveryReadIsOneReadBelowWithTheSameTimeout) {
  write("ver\r\n");
  _below->addRead("v");
  EXPECT_EQ(_channel->readWithTimeout(0.25, nullptr)->length(), 0U);
  EXPECT_EQ(_channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr)->length(), 0U);
  EXPECT_THAT(_below->readTimeouts(), ElementsAre(0.25, -1.0));
}

TEST_F(ZPIEchoRemovalChannelTest, AFailedReadPassesUpAndKeepsHeldBytes) {
  write("ver\r\n");
  EXPECT_EQ(readOf("ve"), "");
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 5, {});
  _below->addFailedRead(fromBelow, false);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(_channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error, fromBelow);
  EXPECT_EQ(readOf("r\r\n=> "), "=> ");
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPIEchoRemovalChannelTest, ACleanCloseBelowIsNullWithoutAnError) {
  _below->addFailedRead(nullptr);
  ZPKErrorPtr error;
  EXPECT_EQ(_channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_F(ZPIEchoRemovalChannelTest, AFailedWriteIsPassedUpAndAwaitsNoEcho) {
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 5, {});
  _below->setWriteResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->write(dataOf("ver\r\n"), &error));
  EXPECT_EQ(error, fromBelow);
  _below->setWriteResult(true);
  EXPECT_EQ(readOf("ver\r\n=> "), "ver\r\n=> ");
}

TEST_F(ZPIEchoRemovalChannelTest, WritesArePassedDownUnchangedEvenNullAndEmptyOnes) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->write(dataOf("ver\r\nmem"), &error));
  EXPECT_TRUE(_channel->write(ZPKData::data(), &error));
  EXPECT_TRUE(_channel->write(nullptr, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(_below->writes(), ElementsAre("ver\r\nmem", "", std::nullopt));
}

TEST_F(ZPIEchoRemovalChannelTest, OpenCloseAndIsOpenedArePassedDown) {
  _below->setOpened(false);
  EXPECT_FALSE(_channel->isOpened());
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->openWithTimeout(2.5, &error));
  EXPECT_TRUE(_channel->isOpened());
  EXPECT_TRUE(_channel->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(_below->calls(), ElementsAre("open", "close"));
  EXPECT_THAT(_below->openTimeouts(), ElementsAre(2.5));

  const ZPKErrorPtr fromBelow = ZPKError::init("below", 1, {});
  _below->setOpenResult(false, fromBelow);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, fromBelow);
  const ZPKErrorPtr otherFromBelow = ZPKError::init("below", 2, {});
  _below->setCloseResult(false, otherFromBelow);
  EXPECT_FALSE(_channel->close(&error));
  EXPECT_EQ(error, otherFromBelow);
}

TEST_F(ZPIEchoRemovalChannelTest, CloseAndOpenKeepAwaitedEchoesAndHeldBytes) {
  write("ver\r\nme");
  EXPECT_EQ(readOf("ve"), "");
  EXPECT_TRUE(_channel->close());
  EXPECT_TRUE(_channel->openWithTimeout(1.0));
  EXPECT_EQ(readOf("r\r\n2.33\r\n"), "2.33\r\n");
  write("m\r\n");
  EXPECT_EQ(readOf("mem\r\n"), "");
}

TEST_F(ZPIEchoRemovalChannelTest, ResetForgetsHeldBytesAwaitedEchoesAndUnfinishedLines) {
  write("ver\r\nme");
  EXPECT_EQ(readOf("ve"), "");
  EXPECT_TRUE(_channel->reset());
  EXPECT_EQ(readOf("ver\r\n"), "ver\r\n");
  write("m\r\n");
  EXPECT_EQ(readOf("mem\r\n"), "mem\r\n");
  EXPECT_EQ(readOf("m\r\n"), "");
}

TEST_F(ZPIEchoRemovalChannelTest, ResetClearsEvenIfTheResetBelowFails) {
  write("ver\r\n");
  EXPECT_EQ(readOf("ve"), "");
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 1, {});
  _below->setResetResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->reset(&error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_EQ(readOf("ver\r\n"), "ver\r\n");
}

TEST_F(ZPIEchoRemovalChannelTest, TheDelimiterIsCopied) {
  const ZPKMutableDataPtr delimiter = dataOf("\n")->mutableCopy();
  const ZPKDataChannelPtr channel = ZPIEchoRemovalChannel::initWithChannel(_below, delimiter);
  delimiter->setContents(*dataOf(";"));
  channel->write(dataOf("ver\n"));
  _below->addRead("ver\n;");
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr)->view(), ";");
}

TEST_F(ZPIEchoRemovalChannelTest, AResultBelongsToTheCaller) {
  EXPECT_EQ(readOf("=> "), "=> ");
  _below->addRead("one\r\n");
  const ZPKDataPtr first = _channel->readWithTimeout(1.0, nullptr);
  EXPECT_EQ(readOf("two\r\n"), "two\r\n");
  EXPECT_EQ(first->view(), "one\r\n");
}

// --- Two threads.

TEST_F(ZPIEchoRemovalChannelTest, AWriterGoesOnWhileAReaderWaitsBelow) {
  std::promise<void> entered;
  std::promise<void> written;
  _below->setOnRead([&](double) {
    entered.set_value();
    written.get_future().wait_for(kPatience);
  });
  _below->addRead("ver\r\n2.33\r\n");
  auto reader = std::async(std::launch::async, [&] { return read(); });
  entered.get_future().wait();
  EXPECT_TRUE(write("ver\r\n"));
  EXPECT_EQ(_below->writes().size(), 1U);  // the reader still waits below
  written.set_value();
  EXPECT_EQ(reader.get(), "2.33\r\n");
}

// A channel that runs a function within its write.
class WriteHook final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override { return toRead; }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override {
    if (onWrite) onWrite();
    return true;
  }

  std::function<void()> onWrite;
  ZPKDataPtr toRead = ZPKData::data();
};

TEST_F(ZPIEchoRemovalChannelTest, AnEchoReadBeforeItsWriteReturnsIsData) {
  const auto below = std::make_shared<WriteHook>();
  const auto channel = ZPIEchoRemovalChannel::initWithChannel(below, dataOf("\r\n"));
  std::string early;
  below->onWrite = [&] {
    below->toRead = dataOf("ver\r\n");
    early = channel->readWithTimeout(1.0, nullptr)->view();
  };
  EXPECT_TRUE(channel->write(dataOf("ver\r\n"), nullptr));
  EXPECT_EQ(early, "ver\r\n");
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr)->view(), "");  // awaited from now on
}

// The device does not echo here, so all its lines pass.
TEST_F(ZPIEchoRemovalChannelTest, AReaderAndAWriterCanRunTogether) {
  constexpr int kLines = 2000;
  for (int i = 0; i < kLines; ++i) _below->addRead("data " + std::to_string(i) + "\r\n");
  std::thread writer([&] {
    for (int i = 0; i < kLines; ++i) write("line " + std::to_string(i) + "\r\n");
  });
  std::string all;
  for (int i = 0; i < kLines; ++i) all += *read();
  writer.join();
  all += *read();
  std::string expected;
  for (int i = 0; i < kLines; ++i) expected += "data " + std::to_string(i) + "\r\n";
  EXPECT_EQ(all, expected);
}

// --- Compared with the documented steps.

// The steps one by one, without regard to speed.
class Model {
 public:
  explicit Model(std::string delimiter) : _delimiter(std::move(delimiter)) {}

  void write(const std::string& bytes) {
    _writeBuffer += bytes;
    split(_writeBuffer, _writeQueue);
  }

  std::string read(const std::string& bytes) {
    _readBuffer += bytes;
    split(_readBuffer, _readQueue);
    std::string output;
    while (!_writeQueue.empty()) {
      if (_readQueue.empty()) return output;
      if (_readQueue.front() == _writeQueue.front()) {
        _writeQueue.pop_front();
      } else {
        output += _readQueue.front();
      }
      _readQueue.pop_front();
    }
    for (const std::string& line : _readQueue) output += line;
    _readQueue.clear();
    output += _readBuffer;
    _readBuffer.clear();
    return output;
  }

 private:
  void split(std::string& buffer, std::deque<std::string>& queue) const {
    for (size_t at = buffer.find(_delimiter); at != std::string::npos;
         at = buffer.find(_delimiter)) {
      queue.push_back(buffer.substr(0, at + _delimiter.size()));
      buffer.erase(0, at + _delimiter.size());
    }
  }

  const std::string _delimiter;
  std::string _readBuffer, _writeBuffer;
  std::deque<std::string> _readQueue, _writeQueue;
};

class ZPIEchoRemovalChannelModelTest : public ZPIEchoRemovalChannelTest,
                                       public testing::WithParamInterface<const char*> {
 protected:
  ZPIEchoRemovalChannelModelTest() : ZPIEchoRemovalChannelTest(GetParam()) {}
};

TEST_P(ZPIEchoRemovalChannelModelTest, RandomTrafficIsProcessedAsTheStepsSay) {
  std::mt19937 random(20240501);
  const auto upTo = [&](int most) { return std::uniform_int_distribution<int>(0, most)(random); };
  const auto bytes = [&] {
    std::string text;
    for (int i = upTo(12); i > 0; --i) text += "abA\r\n"[upTo(4)];
    return text;
  };
  Model model(GetParam());
  std::string written;
  for (int i = 0; i < 5000; ++i) {
    const std::string chunk = bytes();
    if (upTo(2) == 0) {
      write(chunk);
      model.write(chunk);
      written += chunk;
    } else if (upTo(1) == 0) {
      ASSERT_EQ(readOf(chunk), model.read(chunk)) << i;
    } else {
      // An echo, in pieces of any size.
      const std::string echo = written.substr(0, static_cast<size_t>(upTo(20)));
      written.erase(0, echo.size());
      ASSERT_EQ(readOf(echo), model.read(echo)) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Delimiters, ZPIEchoRemovalChannelModelTest,
                         testing::Values("\n", "\r\n", "aa", "aba"));

// --- Size.

// Far above the time that these lengths take, even with a sanitizer, and far below that of work
// that grows with their square.
constexpr double kSecondsOfLinearWork = 30;

TEST_F(ZPIEchoRemovalChannelTest, TheCostOfAFloodGrowsWithItsLength) {
  write("never echoed\r\n");
  std::string flood;
  while (flood.size() < (4U << 20)) flood += "line\r\n";
  const double start = processorTime();
  EXPECT_EQ(readOf(flood), flood);
  EXPECT_TRUE(write(flood));
  EXPECT_LT(processorTime() - start, kSecondsOfLinearWork);
}

// Every byte looks like the start of the delimiter.
TEST_F(ZPIEchoRemovalChannelTest, ALongTailIsNotSearchedAgainByEveryRead) {
  write("ver\r\n");
  const std::string piece(256, '\r');
  const double start = processorTime();
  for (int i = 0; i < 32768; ++i) ASSERT_EQ(readOf(piece), "");
  EXPECT_EQ(readOf("\n")->size(), (8U << 20) + 1);
  EXPECT_LT(processorTime() - start, kSecondsOfLinearWork);
}

}  // namespace
