// How an active channel and its thread end: whichever is first, however often, at any instant.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Data Channel Internal/ZPIActiveChannel.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/ProcessStatus.h"
#include "Support/TestClock.h"
#include "Support/Timeouts.h"
#include "Support/WaitingChannel.h"

using namespace support;

namespace {

using Clock = std::chrono::steady_clock;

// How long a whole run of rounds may take; only a run that hangs takes that long.
constexpr std::chrono::seconds kLimit{100};

// In KiB. If a few thousand stacks were leaked, their used pages would be many times that.
constexpr size_t kAllowedGrowth = 8 * 1024;

ZPKErrorPtr deviceError() {
  static const ZPKErrorPtr error = ZPKError::init("device", 5, {});
  return error;
}

std::shared_ptr<ZPIActiveChannel> openOver(const ZPKDataChannelPtr& line, bool bufferData = true) {
  auto channel = ZPIActiveChannel::initWithChannel(line, bufferData);
  channel->openWithTimeout(1.0, nullptr);
  return channel;
}

// Polls without a pause: for events that happen thousands of times.
bool spinUntil(const std::function<bool()>& condition) {
  const RealTime realTime;
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// An open line that fails as soon as it is allowed to, and records on which thread it is destroyed.
class MortalLine final : public ZPKDataChannel {
 public:
  MortalLine(std::shared_future<void> mayFail, std::promise<std::thread::id>* end)
      : _mayFail(std::move(mayFail)), _end(end) {}
  ~MortalLine() override { _end->set_value(std::this_thread::get_id()); }

  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    _mayFail.wait();
    return nullptr;
  }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return true; }

 private:
  const std::shared_future<void> _mayFail;
  std::promise<std::thread::id>* const _end;
};

// --- Releasing

TEST(ZPIActiveChannelLifeTest, AnOpenChannelThatWasDroppedLivesOn) {
  TestClock clock;
  const SkippedWaits skipped(clock);
  const auto line = WaitingChannel::make();
  std::shared_ptr<ZPIActiveChannel> channel = openOver(line);
  const std::weak_ptr<ZPIActiveChannel> weak = channel;
  channel = nullptr;
  const size_t reads = line->reads();
  EXPECT_TRUE(waitFor([&] { return line->reads() >= reads + 3; }));
  EXPECT_FALSE(weak.expired());
  // Anyone who can still reach the channel can close it.
  EXPECT_TRUE(weak.lock()->close(nullptr));
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST(ZPIActiveChannelLifeTest, AFailureBelowFreesAChannelThatWasDropped) {
  const auto line = WaitingChannel::make();
  const std::weak_ptr<ZPIActiveChannel> weak = openOver(line);
  EXPECT_FALSE(weak.expired());
  line->fail(deviceError());
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST(ZPIActiveChannelLifeTest, ClosingBelowFreesAChannelThatWasDropped) {
  const auto line = WaitingChannel::make();
  const std::weak_ptr<ZPIActiveChannel> weak = openOver(line, false);
  EXPECT_FALSE(weak.expired());
  EXPECT_TRUE(line->close());
  EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

TEST(ZPIActiveChannelLifeTest, TheThreadItselfMayDropTheLastReference) {
  for (int round = 0; round < 100; ++round) {
    std::promise<void> mayFail;
    std::promise<std::thread::id> end;
    std::future<std::thread::id> destroyedOn = end.get_future();
    const std::weak_ptr<ZPIActiveChannel> weak = ZPIActiveChannel::initWithChannel(
        std::make_shared<MortalLine>(mayFail.get_future().share(), &end), true);
    ASSERT_FALSE(weak.expired());
    mayFail.set_value();
    ASSERT_EQ(destroyedOn.wait_for(kPatience), std::future_status::ready);
    EXPECT_NE(destroyedOn.get(), std::this_thread::get_id());
    EXPECT_TRUE(weak.expired());
  }
}

TEST(ZPIActiveChannelLifeTest, TheLastReferenceAndTheFailureMayCoincide) {
  for (int round = 0; round < 300; ++round) {
    std::promise<void> mayFail;
    std::promise<std::thread::id> end;
    std::future<std::thread::id> destroyedOn = end.get_future();
    auto channel = ZPIActiveChannel::initWithChannel(
        std::make_shared<MortalLine>(mayFail.get_future().share(), &end), round % 2 == 0);
    mayFail.set_value();
    channel = nullptr;
    ASSERT_EQ(destroyedOn.wait_for(kPatience), std::future_status::ready);
  }
}

TEST(ZPIActiveChannelLifeTest, AChannelThatWasNeverOpenedIsDestroyedAtOnce) {
  const auto line = WaitingChannel::make();
  const std::weak_ptr<ZPIActiveChannel> weak = ZPIActiveChannel::initWithChannel(line, true);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(line.use_count(), 1);
}

TEST(ZPIActiveChannelLifeTest, AClosedChannelIsDestroyedAtOnce) {
  const auto line = WaitingChannel::make();
  std::weak_ptr<ZPIActiveChannel> weak;
  {
    const auto channel = openOver(line);
    weak = channel;
    EXPECT_TRUE(channel->close(nullptr));
  }
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(line->count("close"), 1U);
}

TEST(ZPIActiveChannelLifeTest, ItsDestructorDoesNotCloseTheChannelBelow) {
  const auto line = WaitingChannel::make();
  openOver(line)->close(nullptr);
  line->openWithTimeout(1.0);
  { const auto channel = ZPIActiveChannel::initWithChannel(line, true); }
  EXPECT_EQ(line->count("close"), 1U);
  EXPECT_TRUE(line->isOpened());
  line->fail(nullptr);  // ends the thread that the wrapping started
  EXPECT_TRUE(waitFor([&] { return line.use_count() == 1; }));
}

TEST(ZPIActiveChannelLifeTest, AThreadThatClosesDoesNotWaitForItself) {
  const auto line = WaitingChannel::make();
  std::promise<bool> result;
  std::weak_ptr<ZPIActiveChannel> weak;
  {
    const auto channel = openOver(line);
    weak = channel;
    std::atomic<bool> isFirst{true};
    line->setOnRead([&](double) {
      if (!isFirst.exchange(false)) return;
      const auto self = weak.lock();
      result.set_value(self != nullptr && self->close(nullptr));
    });
    std::future<bool> isClosed = result.get_future();
    ASSERT_EQ(isClosed.wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(isClosed.get());
    EXPECT_FALSE(channel->isOpened());
    // And it can be opened again.
    EXPECT_TRUE(waitFor([&] { return channel.use_count() == 1; }));
    line->setOnRead(nullptr);
    EXPECT_TRUE(channel->openWithTimeout(1.0, nullptr));
    EXPECT_TRUE(channel->close(nullptr));
  }
  EXPECT_TRUE(weak.expired());
}

// --- Openings in a row

// A line whose first read closes it, as a transport's failing read does, and returns later.
class SlowlyFailingLine final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override {
    return _line->openWithTimeout(timeout, error);
  }
  bool close(ZPKErrorPtr* error) override { return _line->close(error); }
  bool reset(ZPKErrorPtr* error) override { return _line->reset(error); }
  bool isOpened() const override { return _line->isOpened(); }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override {
    if (!_isFirstRead.exchange(false)) return _line->readWithTimeout(timeout, error);
    _line->close();
    mayReturn.get_future().wait();
    *error = deviceError();
    return nullptr;
  }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override {
    return _line->write(data, error);
  }

  std::promise<void> mayReturn;

 private:
  const std::shared_ptr<WaitingChannel> _line = WaitingChannel::make();
  std::atomic<bool> _isFirstRead{true};
};

TEST(ZPIActiveChannelLifeTest, ALateFailureDoesNotReachTheNextOpening) {
  const auto line = std::make_shared<SlowlyFailingLine>();
  const auto channel = openOver(line);
  ASSERT_TRUE(waitFor([&] { return !channel->isOpened(); }));
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(channel.use_count(), 3);  // both threads are alive
  line->mayReturn.set_value();
  ASSERT_TRUE(waitFor([&] { return channel.use_count() == 2; }));
  EXPECT_TRUE(channel->isOpened());
  EXPECT_TRUE(channel->close(nullptr));
  const LogCapture log;
  ZPKErrorPtr error;
  EXPECT_FALSE(channel->close(&error));
  EXPECT_EQ(error->description(), "Device Already Closed");
}

TEST(ZPIActiveChannelLifeTest, AThreadThatMissedAReopeningReadsNoMore) {
  const auto line = WaitingChannel::make();
  const auto channel = openOver(line);
  std::promise<void> isBetweenReads;
  std::promise<void> mayGoOn;
  std::atomic<bool> isFirst{true};
  line->setOnRead([&](double) {
    if (!isFirst.exchange(false)) return;
    isBetweenReads.set_value();
    mayGoOn.get_future().wait();
  });
  isBetweenReads.get_future().wait();
  line->close();  // behind the channel's back
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  mayGoOn.set_value();
  // One of the two threads ends, and only the other one reads from then on.
  ASSERT_TRUE(waitFor([&] { return channel.use_count() == 2; }));
  line->deliver("new");
  EXPECT_EQ(channel->readWithTimeout(kForever, nullptr)->view(), "new");
  EXPECT_TRUE(channel->close(nullptr));
}

// The number of threads, with those that a sanitizer adds when the first one starts.
size_t threadCount() {
  std::thread([] {}).join();
  return processStatus("Threads");
}

// A station that reconnects ten thousand times after failed reads.
TEST(ZPIActiveChannelLifeTest, TenThousandReconnectionsLeaveNothingBehind) {
  constexpr int kWarmUp = 1000;
  constexpr int kRounds = 10000;
  const LogCapture log;
  const auto line = WaitingChannel::make();
  line->failEveryRead(deviceError());
  const auto channel = ZPIActiveChannel::initWithChannel(line, true);
  const size_t threads = threadCount();
  size_t memory = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (round == kWarmUp) memory = processStatus("VmRSS");
    channel->openWithTimeout(1.0, nullptr);
    ASSERT_EQ(channel->readWithTimeout(kForever, nullptr), nullptr);
    ASSERT_FALSE(channel->isOpened());
  }
  EXPECT_TRUE(waitFor([&] { return processStatus("Threads") <= threads; }));
  EXPECT_EQ(line->count("open"), static_cast<size_t>(kRounds));
  if (isMemoryComparable()) {
    EXPECT_LT(processStatus("VmRSS"), memory + kAllowedGrowth);
  }
}

TEST(ZPIActiveChannelLifeTest, ChannelsDestroyedAfterTheirThreadLeaveNothingBehind) {
  constexpr int kWarmUp = 500;
  constexpr int kRounds = 5000;
  const LogCapture log;
  const size_t threads = threadCount();
  size_t memory = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (round == kWarmUp) memory = processStatus("VmRSS");
    const auto line = WaitingChannel::make();
    line->failEveryRead(deviceError());
    const auto channel = openOver(line);
    ASSERT_EQ(channel->readWithTimeout(kForever, nullptr), nullptr);
  }
  EXPECT_TRUE(waitFor([&] { return processStatus("Threads") <= threads; }));
  if (isMemoryComparable()) {
    EXPECT_LT(processStatus("VmRSS"), memory + kAllowedGrowth);
  }
}

// --- Closing at every instant

// Reads until the channel stops; true if it stopped as it does after a close or a failure.
bool readUntilItStops(const std::shared_ptr<ZPIActiveChannel>& channel) {
  for (;;) {
    const ZPKDataPtr data = channel->readWithTimeout(kForever, nullptr);
    if (data == nullptr) return !channel->isOpened();
    if (data->length() == 0) return false;
  }
}

// Without a pause between its slices, the close can find the thread at any instant.
TEST(ZPIActiveChannelLifeTest, ACloseDuringAReadThatWaitsForever) {
  const LogCapture log;
  const Clock::time_point deadline = Clock::now() + kLimit;
  TestClock clock;
  const SkippedWaits skipped(clock);
  const auto line = WaitingChannel::make();
  const auto channel = ZPIActiveChannel::initWithChannel(line, true);
  for (int round = 0; round < 100; ++round) {
    ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
    std::future<bool> reader =
        std::async(std::launch::async, [&] { return readUntilItStops(channel); });
    if (round % 3 != 0) spinUntil([&] { return line->isBeingRead(); });
    EXPECT_TRUE(channel->close(nullptr));
    ASSERT_EQ(reader.wait_until(deadline), std::future_status::ready) << round;
    EXPECT_TRUE(reader.get());
  }
}

TEST(ZPIActiveChannelLifeTest, ACloseDuringAStreamAtFullSpeed) {
  const LogCapture log;
  const Clock::time_point deadline = Clock::now() + kLimit;
  const auto line = WaitingChannel::make();
  const auto channel = ZPIActiveChannel::initWithChannel(line, true);
  line->setOnRead([&line](double) { line->deliver("a line of the console\r\n"); });
  for (int round = 0; round < 200; ++round) {
    ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
    std::atomic<size_t> received{0};
    std::future<bool> reader = std::async(std::launch::async, [&] {
      for (;;) {
        const ZPKDataPtr data = channel->readWithTimeout(kForever, nullptr);
        if (data == nullptr) return !channel->isOpened();
        received += data->length();
      }
    });
    const auto wanted = static_cast<size_t>(round % 7) * 100;
    ASSERT_TRUE(spinUntil([&] { return received >= wanted; }));
    EXPECT_TRUE(channel->close(nullptr));
    ASSERT_EQ(reader.wait_until(deadline), std::future_status::ready) << round;
    EXPECT_TRUE(reader.get());
  }
}

TEST(ZPIActiveChannelLifeTest, ACloseAtTheInstantOfALineFailure) {
  const LogCapture log;
  const Clock::time_point deadline = Clock::now() + kLimit;
  const auto line = WaitingChannel::make();
  const auto channel = ZPIActiveChannel::initWithChannel(line, true);
  for (int round = 0; round < 500; ++round) {
    ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
    std::future<bool> reader =
        std::async(std::launch::async, [&] { return readUntilItStops(channel); });
    std::thread failer([&line] { line->fail(deviceError()); });
    ZPKErrorPtr error;
    if (!channel->close(&error)) {
      EXPECT_EQ(error->code(), 2);
    }
    failer.join();
    ASSERT_EQ(reader.wait_until(deadline), std::future_status::ready) << round;
    EXPECT_TRUE(reader.get());
    EXPECT_FALSE(channel->isOpened());
    line->clearSteps();
    line->close();
  }
}

TEST(ZPIActiveChannelLifeTest, WritesAndStateQueriesDuringACloseAndAnOpen) {
  const LogCapture log;
  const auto line = WaitingChannel::make();
  const auto channel = ZPIActiveChannel::initWithChannel(line, true);
  std::atomic<bool> isOver{false};
  std::thread writer([&] {
    const ZPKDataPtr data = ZPKData::dataWithString("x");
    while (!isOver) channel->write(data, nullptr);
  });
  std::thread watcher([&] {
    while (!isOver) channel->isOpened();
  });
  for (int round = 0; round < 30; ++round) {
    EXPECT_TRUE(channel->openWithTimeout(1.0, nullptr));
    EXPECT_TRUE(channel->close(nullptr));
  }
  isOver = true;
  writer.join();
  watcher.join();
}

// --- At the end of the process

std::atomic<size_t> readsAtExit{0};

class LineAtExit final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    ++readsAtExit;
    return ZPKData::data();
  }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return true; }
};

// Registered before the library creates anything on first use, so it runs after all that has been
// destroyed.
void readOnWhileTheProcessEnds() {
  const size_t reads = readsAtExit;
  if (!spinUntil([reads] { return readsAtExit > reads + 1000; })) ::_exit(1);
}

void exitWithAnOpenChannel() {
  std::atexit(readOnWhileTheProcessEnds);
  const auto channel = openOver(std::make_shared<LineAtExit>());
  std::exit(0);
}

TEST(ZPIActiveChannelDeathTest, AProcessMayEndWithAnOpenChannel) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWithAnOpenChannel(), testing::ExitedWithCode(0), "");
}

}  // namespace
