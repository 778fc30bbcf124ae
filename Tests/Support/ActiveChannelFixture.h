#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "Data Channel Internal/ZPIActiveChannel.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/TestClock.h"
#include "Support/ThreadCalls.h"
#include "Support/Timeouts.h"
#include "Support/WaitingChannel.h"

namespace support {

/// The failure that ends the line.
inline ZPKErrorPtr deviceError() {
  static const ZPKErrorPtr error =
      ZPKError::init("zephalbench.zephal-communication", 5,
                     {{std::string(ZPKErrorDescriptionKey), "Read failed with error Gone (5)"},
                      {std::string(ZPKErrorLocationKey), "where it happened"}});
  return error;
}

/// An active channel over a line without a device, brought to one of its states; closed at the end
/// if it is open. Its thread reads by a clock of the test's own.
class ActiveChannelFixture : public testing::Test {
 protected:
  ~ActiveChannelFixture() override {
    if (_channel != nullptr && _channel->isOpened()) close();
  }

  void makeNeverOpened(bool bufferData = true) {
    _line = WaitingChannel::make();
    _channel = ZPIActiveChannel::initWithChannel(_line, bufferData);
  }

  void makeRunning(bool bufferData = true) {
    makeNeverOpened(bufferData);
    ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  }

  void makeFailed(const ZPKErrorPtr& error = deviceError(), bool bufferData = true) {
    makeRunning(bufferData);
    _line->fail(error);
    ASSERT_TRUE(waitForFailure(error));
  }

  void makeClosed(bool bufferData = true) {
    makeRunning(bufferData);
    ASSERT_TRUE(close());
  }

  // Does not wait for the thread's current slice to end.
  bool close(ZPKErrorPtr* error = nullptr) {
    const SkippedWaits skipped(_clock);
    return _channel->close(error);
  }

  // The channel reports itself closed a moment before the error is stored.
  bool waitForFailure(const ZPKErrorPtr& error) {
    if (!waitFor([&] { return !_channel->isOpened(); })) return false;
    if (error == nullptr) return true;
    const LogCapture log;
    return waitFor([&] {
      ZPKErrorPtr found;
      _channel->close(&found);
      return found != nullptr && found->description() == error->description();
    });
  }

  std::future<ZPKDataPtr> readElsewhere(double timeout, ZPKErrorPtr* error) {
    return std::async(std::launch::async, [channel = _channel, timeout, error] {
      return channel->readWithTimeout(timeout, error);
    });
  }

  // Returns once the read waits.
  std::future<ZPKDataPtr> readForeverElsewhere(ZPKErrorPtr* error) {
    const size_t waits = endlessWaits();
    std::future<ZPKDataPtr> read = readElsewhere(ZEPHAL_COMMUNICATION_TIME_FOREVER, error);
    EXPECT_TRUE(waitFor([&] { return endlessWaits() > waits; }));
    return read;
  }

  // Expects a failure of the channel's own, with a slot that holds an older error and without a
  // slot.
  template <class Action>
  static void expectRefused(Action action, int code, const char* text, const char* function) {
    {
      const LogCapture log;
      ZPKErrorPtr error = olderError();
      EXPECT_FALSE(static_cast<bool>(action(&error)));
      expectFailure(error, log,
                    {"zephal-communication", code, text, function, "ZPIActiveChannel.cpp"});
    }
    const LogCapture log;
    EXPECT_FALSE(static_cast<bool>(action(nullptr)));
    EXPECT_THAT(log.lines(), testing::ElementsAre(LogLine{0, text}));
  }

  void expectReadRefused(double timeout, int code, const char* text) {
    expectRefused([&](ZPKErrorPtr* error) { return _channel->readWithTimeout(timeout, error); },
                  code, text, "-[ZPIActiveChannel readWithTimeout:error:]");
  }
  void expectWriteRefused(int code, const char* text) {
    const ZPKDataPtr data = ZPKData::dataWithString("x");
    const size_t writes = _line->writes().size();
    expectRefused([&](ZPKErrorPtr* error) { return _channel->write(data, error); }, code, text,
                  "-[ZPIActiveChannel write:error:]");
    EXPECT_EQ(_line->writes().size(), writes);
  }
  void expectTalkRefusedAsClosed() {
    expectReadRefused(ZEPHAL_COMMUNICATION_TIME_NOW, 2, "Cannot communicate with closed devices");
    expectReadRefused(-0.5, 2, "Cannot communicate with closed devices");
    expectWriteRefused(2, "Cannot communicate with closed devices");
  }
  void expectTalkRefusedAsNull() {
    expectReadRefused(ZEPHAL_COMMUNICATION_TIME_NOW, 6, "active null stub does not support read");
    expectReadRefused(-0.5, 6, "active null stub does not support read");
    expectWriteRefused(6, "active null stub does not support write");
  }
  void expectCloseRefused() {
    const size_t closes = _line->count("close");
    expectRefused([&](ZPKErrorPtr* error) { return _channel->close(error); }, 2,
                  "Device Already Closed", "-[ZPIActiveChannel close:]");
    EXPECT_EQ(_line->count("close"), closes);
  }
  void expectOpenRefused() {
    const size_t opens = _line->count("open");
    expectRefused([&](ZPKErrorPtr* error) { return _channel->openWithTimeout(1.0, error); }, 1,
                  "Device Already Opened", "-[ZPIActiveChannel openWithTimeout:error:]");
    EXPECT_EQ(_line->count("open"), opens);
    EXPECT_TRUE(_channel->isOpened());
  }
  void expectResetRefused() {
    const size_t resets = _line->count("reset");
    expectRefused([&](ZPKErrorPtr* error) { return _channel->reset(error); }, 1,
                  "Reset not supported while channel is open", "-[ZPIActiveChannel reset:]");
    EXPECT_EQ(_line->count("reset"), resets);
    EXPECT_TRUE(_channel->isOpened());
  }

  void expectResetForwarded() {
    const LogCapture log;
    const size_t resets = _line->count("reset");
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(_channel->reset(&error));
    EXPECT_EQ(error, olderError());
    _line->setResetResult(false, deviceError());
    EXPECT_FALSE(_channel->reset(&error));
    EXPECT_EQ(error, deviceError());
    EXPECT_EQ(_line->count("reset"), resets + 2);
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    _line->setResetResult(true);
  }

  // The thread makes one more read each time the clock moves by a slice.
  void expectReadsInSlices() {
    for (size_t reads = 1; reads < 4; ++reads) {
      ASSERT_TRUE(waitFor([&] { return _line->reads() == reads && _line->isBeingRead(); }));
      _clock.advance(std::chrono::nanoseconds(33333334));
    }
    ASSERT_TRUE(waitFor([&] { return _line->reads() == 4; }));
    EXPECT_THAT(_line->readTimeouts(), testing::ElementsAre(1.0 / 30.0));
  }

  void expectOpens() {
    const LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(_channel->openWithTimeout(2.5, &error));
    EXPECT_EQ(error, olderError());
    EXPECT_EQ(_line->openTimeouts().back(), 2.5);
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    EXPECT_TRUE(_channel->isOpened());
    expectDelivers("after the open");
  }

  // Bytes from below reach a read, or, in the null form, the thread.
  void expectDelivers(const char* text, bool bufferData = true) {
    _line->deliver(text);
    ASSERT_TRUE(_line->waitUntilAllIsPassedOn());
    if (bufferData) {
      EXPECT_EQ(bytesOf(_channel->readWithTimeout(kLong, nullptr)), text);
    }
  }

  // However often it is called, close fails with the stored error under code 2, logs nothing and
  // does not touch the line.
  void expectCloseRepeats(const ZPKError& stored) {
    const LogCapture log;
    const size_t closes = _line->count("close");
    for (int round = 0; round < 3; ++round) {
      ZPKErrorPtr error = olderError();
      EXPECT_FALSE(_channel->close(&error));
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), stored.domain());
      EXPECT_EQ(error->code(), 2);
      EXPECT_EQ(error->userInfo(), stored.userInfo());
      EXPECT_FALSE(_channel->close(nullptr));
    }
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    EXPECT_EQ(_line->count("close"), closes);
  }

  TestClock _clock;
  std::shared_ptr<WaitingChannel> _line;
  std::shared_ptr<ZPIActiveChannel> _channel;
};

}  // namespace support
