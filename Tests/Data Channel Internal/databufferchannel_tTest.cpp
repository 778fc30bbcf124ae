#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <string>
#include <string_view>
#include <thread>

#include "Data Channel Internal/databufferchannel_t.h"
#include "Support/EventWait.h"
#include "Support/TestClock.h"
#include "Support/ThreadCalls.h"
#include "Support/Timeouts.h"

using namespace support;

namespace {

using Queue = databufferchannel_t<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int kUntouched = 4711;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

void send(Queue* queue, std::string_view text) {
  queue->Send(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

void append(Queue::Vector* vector, std::string_view text) {
  vector->append(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

std::string textOf(const Queue::Vector& vector) {
  return {reinterpret_cast<const char*>(vector.data()), vector.size()};
}

// The outcome of one TryReceive.
struct Received {
  bool result;
  int reason;
  std::string text;

  friend bool operator==(const Received&, const Received&) = default;
};

std::ostream& operator<<(std::ostream& stream, const Received& received) {
  return stream << "{" << received.result << ", " << received.reason << ", \"" << received.text
                << "\"}";
}

Received receive(Queue* queue, double timeout) {
  Queue::Vector output;
  errno = kUntouched;
  const bool result = queue->TryReceive(timeout, output);
  const int reason = errno;
  return {result, reason, textOf(output)};
}

std::future<Received> receiveElsewhere(Queue* queue, double timeout) {
  return std::async(std::launch::async, [queue, timeout] { return receive(queue, timeout); });
}

TEST(DataBufferChannelTest, NowOnAnEmptyQueueTimesOutAtOnce) {
  Queue queue;
  EXPECT_EQ(receive(&queue, kNow), (Received{false, ETIMEDOUT, ""}));
  EXPECT_EQ(receive(&queue, -0.0), (Received{false, ETIMEDOUT, ""}));
}

TEST(DataBufferChannelTest, QueuedBytesAreReturnedAtOnceUnderEveryTimeout) {
  for (const double timeout : {kNow, kForever, 0.01, 1.5, 1e300, kInfinity}) {
    Queue queue;
    send(&queue, "bytes");
    EXPECT_EQ(receive(&queue, timeout), (Received{true, 0, "bytes"})) << timeout;
    EXPECT_EQ(receive(&queue, kNow), (Received{false, ETIMEDOUT, ""})) << timeout;
  }
}

TEST(DataBufferChannelTest, BytesSentInPiecesAreReceivedAsOneStream) {
  Queue queue;
  send(&queue, "one ");
  send(&queue, "two ");
  send(&queue, "three");
  EXPECT_EQ(receive(&queue, kNow), (Received{true, 0, "one two three"}));
}

TEST(DataBufferChannelTest, APositiveTimeoutLastsItsTimeAndThenTimesOut) {
  TestClock clock;
  const SkippedWaits skipped(clock);
  Queue queue;
  EXPECT_EQ(receive(&queue, 2.5), (Received{false, ETIMEDOUT, ""}));
  EXPECT_EQ(clock.passed(), std::chrono::milliseconds(2500));
}

TEST(DataBufferChannelTest, ARealTimeoutNeverExpiresEarly) {
  Queue queue;
  const auto start = std::chrono::system_clock::now();
  EXPECT_EQ(receive(&queue, 0.02), (Received{false, ETIMEDOUT, ""}));
  // Minus one microsecond, the resolution at which the queue reads that clock.
  EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::microseconds(19999));
}

TEST(DataBufferChannelTest, BytesAreReceivedInTheLastInstantOfAWait) {
  TestClock clock;
  Queue queue;
  std::future<Received> received = receiveElsewhere(&queue, 2.0);
  ASSERT_TRUE(waitFor([&] { return clock.waits() > 0; }));
  clock.advance(std::chrono::milliseconds(1999));
  send(&queue, "first");
  ASSERT_EQ(received.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(received.get(), (Received{true, 0, "first"}));
}

TEST(DataBufferChannelTest, AWaitEndsWithTheFirstBytes) {
  for (const double timeout : {kLong, kForever, 1e12, 1e300, kInfinity}) {
    Queue queue;
    std::future<Received> received = receiveElsewhere(&queue, timeout);
    send(&queue, "first");
    ASSERT_EQ(received.wait_for(kPatience), std::future_status::ready) << timeout;
    EXPECT_EQ(received.get(), (Received{true, 0, "first"})) << timeout;
  }
}

TEST(DataBufferChannelTest, ForeverWaitsUntilTheClose) {
  Queue queue;
  const size_t waits = endlessWaits();
  std::future<Received> received = receiveElsewhere(&queue, kForever);
  ASSERT_TRUE(waitFor([&] { return endlessWaits() > waits; }));
  queue.Close();
  ASSERT_EQ(received.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(received.get(), (Received{false, ETIMEDOUT, ""}));
}

TEST(DataBufferChannelTest, AnyOtherNegativeTimeoutIsRejected) {
  Queue queue;
  send(&queue, "kept");
  for (const double timeout : {-0.5, -1.0000001, -0.9999999, -2.0, -1e300, -kInfinity}) {
    EXPECT_EQ(receive(&queue, timeout), (Received{false, EINVAL, ""})) << timeout;
  }
  EXPECT_EQ(receive(&queue, kNow), (Received{true, 0, "kept"}));
}

TEST(DataBufferChannelTest, ANegativeTimeoutPassesWithAFilledOutput) {
  Queue queue;
  Queue::Vector output;
  append(&output, "old");
  EXPECT_FALSE(queue.TryReceive(-0.5, output));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(textOf(output), "old");
  send(&queue, "new");
  EXPECT_TRUE(queue.TryReceive(-0.5, output));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(textOf(output), "new");
}

TEST(DataBufferChannelTest, TheOutputIsSwappedWithTheQueuedBytes) {
  Queue queue;
  Queue::Vector output;
  append(&output, "old");
  send(&queue, "new");
  EXPECT_TRUE(queue.TryReceive(kNow, output));
  EXPECT_EQ(textOf(output), "new");
  EXPECT_EQ(receive(&queue, kNow), (Received{true, 0, "old"}));
}

TEST(DataBufferChannelTest, ATimeoutThatIsNotANumberIsAlwaysRejected) {
  Queue queue;
  send(&queue, "kept");
  EXPECT_EQ(receive(&queue, std::nan("")), (Received{false, EINVAL, ""}));
  Queue::Vector output;
  append(&output, "old");
  EXPECT_FALSE(queue.TryReceive(std::nan(""), output));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(textOf(output), "old");
}

TEST(DataBufferChannelTest, AClosedQueueReturnsNothingAndLeavesErrnoAlone) {
  Queue queue;
  send(&queue, "lost");
  EXPECT_FALSE(queue.isClosed());
  queue.Close();
  EXPECT_TRUE(queue.isClosed());
  for (const double timeout : {kNow, kForever, 1.0}) {
    EXPECT_EQ(receive(&queue, timeout), (Received{false, kUntouched, ""})) << timeout;
  }
}

TEST(DataBufferChannelTest, ABadTimeoutIsAlsoRejectedWhenClosed) {
  Queue queue;
  queue.Close();
  EXPECT_EQ(receive(&queue, -0.5), (Received{false, EINVAL, ""}));
}

TEST(DataBufferChannelTest, ItStaysClosed) {
  Queue queue;
  queue.Close();
  queue.Close();
  send(&queue, "too late");
  EXPECT_TRUE(queue.isClosed());
  EXPECT_EQ(receive(&queue, kNow), (Received{false, kUntouched, ""}));
}

TEST(DataBufferChannelTest, SendLeavesTheResultOfTheSignalInErrno) {
  Queue queue;
  errno = kUntouched;
  send(&queue, "a");
  EXPECT_EQ(errno, 0);
}

TEST(DataBufferChannelTest, SendingNothingDoesNothing) {
  Queue queue;
  errno = kUntouched;
  queue.Send(nullptr, 0);
  EXPECT_EQ(errno, kUntouched);
  EXPECT_EQ(receive(&queue, kNow), (Received{false, ETIMEDOUT, ""}));
}

TEST(DataBufferChannelTest, SendingToAClosedQueueDoesNothing) {
  Queue queue;
  queue.Close();
  errno = kUntouched;
  send(&queue, "a");
  EXPECT_EQ(errno, kUntouched);
}

TEST(DataBufferChannelTest, BytesAtTheInstantOfATimeoutStayQueued) {
  Queue queue;
  const ReplacedWaits wait([&queue] {
    send(&queue, "late");
    return ETIMEDOUT;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{false, ETIMEDOUT, ""}));
  EXPECT_EQ(receive(&queue, kLong), (Received{true, 0, "late"}));
}

TEST(DataBufferChannelTest, ACloseAtTheInstantOfATimeoutCancels) {
  Queue queue;
  const ReplacedWaits wait([&queue] {
    queue.Close();
    return ETIMEDOUT;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{false, ECANCELED, ""}));
}

TEST(DataBufferChannelTest, ACloseThatWakesTheWaitTimesOut) {
  Queue queue;
  const ReplacedWaits wait([&queue] {
    queue.Close();
    return 0;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{false, ETIMEDOUT, ""}));
}

TEST(DataBufferChannelTest, BytesSentBeforeACloseAreStillReceived) {
  Queue queue;
  const ReplacedWaits wait([&queue] {
    send(&queue, "just in time");
    queue.Close();
    return 0;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{true, 0, "just in time"}));
}

TEST(DataBufferChannelTest, ASpuriousWakeUpContinuesTheWait) {
  Queue queue;
  int waits = 0;
  const ReplacedWaits wait([&] {
    if (++waits == 3) send(&queue, "at last");
    return 0;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{true, 0, "at last"}));
  EXPECT_EQ(waits, 3);
}

TEST(DataBufferChannelTest, AFailedWaitEndsWithItsReason) {
  Queue queue;
  int waits = 0;
  const ReplacedWaits wait([&waits] {
    ++waits;
    return EPERM;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{false, EPERM, ""}));
  EXPECT_EQ(waits, 1);
}

TEST(DataBufferChannelTest, BytesStayWhenTheWaitFails) {
  Queue queue;
  const ReplacedWaits wait([&queue] {
    send(&queue, "late");
    return EPERM;
  });
  EXPECT_EQ(receive(&queue, kLong), (Received{false, EPERM, ""}));
  EXPECT_EQ(receive(&queue, kNow), (Received{true, 0, "late"}));
}

TEST(DataBufferChannelTest, CarriesValuesOfAnyPlainType) {
  databufferchannel_t<double> queue;
  const double values[] = {0.5, -1.0};
  queue.Send(values, 2);
  databufferchannel_t<double>::Vector output;
  ASSERT_TRUE(queue.TryReceive(kNow, output));
  ASSERT_EQ(output.size(), 2U);
  EXPECT_EQ(output.data()[1], -1.0);
}

// Every byte is received exactly once and in order, however the waits end.
TEST(DataBufferChannelTest, LosesAndDuplicatesNothingWhenTimeoutsAndBytesCoincide) {
  constexpr size_t kBytes = 20000;
  Queue queue;
  std::thread producer([&queue] {
    for (size_t index = 0; index < kBytes; ++index) {
      const auto value = static_cast<uint8_t>(index);
      queue.Send(&value, 1);
      if (index % 1000 == 0) std::this_thread::yield();
    }
  });
  std::string received;
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (received.size() < kBytes && Clock::now() < deadline) {
    const Received piece = receive(&queue, 1e-6 * static_cast<double>(received.size() % 50));
    EXPECT_EQ(piece.result, !piece.text.empty());
    EXPECT_TRUE(piece.reason == 0 || piece.reason == ETIMEDOUT) << piece.reason;
    received += piece.text;
  }
  producer.join();
  ASSERT_EQ(received.size(), kBytes);
  for (size_t index = 0; index < kBytes; ++index) {
    ASSERT_EQ(static_cast<uint8_t>(received[index]), static_cast<uint8_t>(index));
  }
}

TEST(DataBufferChannelTest, ACloseAlwaysEndsTheWaitOfAConsumer) {
  for (int round = 0; round < 300; ++round) {
    const auto queue = std::make_shared<Queue>();
    std::future<Received> received =
        std::async(std::launch::async, [queue] { return receive(queue.get(), kForever); });
    if (round % 2 == 0) std::this_thread::yield();
    queue->Close();
    ASSERT_EQ(received.wait_for(kPatience), std::future_status::ready) << round;
    EXPECT_FALSE(received.get().result);
  }
}

}  // namespace
