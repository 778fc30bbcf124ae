// The active channel in a chain as a stack builds it, over each kind of line.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/SimulatedDevice.h"
#include "Support/SocketPair.h"
#include "Support/SystemCalls.h"
#include "Support/TestClock.h"
#include "Support/Timeouts.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPKReportFailure.h"

using namespace support;

namespace {

using Clock = std::chrono::steady_clock;
using Kind = SimulatedDevice::Kind;

constexpr const char* kPrompt = "=> ";

std::string nameOf(const testing::TestParamInfo<Kind>& info) {
  switch (info.param) {
    case Kind::kTerminal: return "Terminal";
    case Kind::kTCP: return "TCP";
    case Kind::kUnix: return "Unix";
  }
  return "";
}

ZPKDataChannelPtr activeOver(const SimulatedDevice& device) {
  return createActiveChannel(createBaseChannelWithTransport(device.url()));
}

// Passive, aggregating, active, transport: the chain of a comm stack below its transformers.
ZPKDataChannelPtr chainOver(const ZPKDataChannelPtr& active) {
  const auto aggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(ZPKData::dataWithString(kPrompt));
  return createPassiveChannel(createAggregatingTransformerChannel(active, aggregator));
}

bool write(const ZPKDataChannelPtr& channel, std::string_view text) {
  return channel->write(ZPKData::dataWithString(text));
}

std::string read(const ZPKDataChannelPtr& channel, double timeout) {
  const ZPKDataPtr data = channel->readWithTimeout(timeout);
  return data == nullptr ? "(null)" : std::string(data->view());
}

class ZPIActiveChannelDeviceTest : public testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(Lines, ZPIActiveChannelDeviceTest,
                         testing::Values(Kind::kTerminal, Kind::kTCP, Kind::kUnix), nameOf);

TEST_P(ZPIActiveChannelDeviceTest, CommandsAreAnsweredOneAfterTheOther) {
  SimulatedDevice device(GetParam(),
                         {.respond = [](const std::string& command) { return command + "!\n"; }});
  const ZPKDataChannelPtr chain = chainOver(activeOver(device));
  ASSERT_TRUE(chain->openWithTimeout(1.0));
  for (int number = 0; number < 100; ++number) {
    const std::string command = "command " + std::to_string(number);
    ASSERT_TRUE(write(chain, command + "\n"));
    ASSERT_EQ(read(chain, kLong), command + "!\n=> ");
  }
  EXPECT_TRUE(chain->close());
}

TEST_P(ZPIActiveChannelDeviceTest, UnitsThatArriveTogetherArePassedUpOneByOne) {
  SimulatedDevice device(GetParam());
  const ZPKDataChannelPtr chain = chainOver(activeOver(device));
  ASSERT_TRUE(chain->openWithTimeout(1.0));
  device.send("one=> two=> thr");
  device.send("ee=> ");
  EXPECT_EQ(read(chain, kLong), "one=> ");
  EXPECT_EQ(read(chain, kLong), "two=> ");
  EXPECT_EQ(read(chain, kLong), "three=> ");
  EXPECT_EQ(read(chain, kNow), "");
  EXPECT_TRUE(chain->close());
}

TEST_P(ZPIActiveChannelDeviceTest, TheDeviceIsDrainedWhileNobodyReads) {
  // More than any line buffers in transit.
  std::string sent;
  for (int line = 0; sent.size() < 1000000; ++line) sent += std::to_string(line) + "\r\n";
  SimulatedDevice device(GetParam());
  const ZPKDataChannelPtr channel = activeOver(device);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  device.send(sent);
  EXPECT_TRUE(device.waitUntilAllIsSent());
  std::string received;
  while (received.size() < sent.size()) {
    const ZPKDataPtr data = channel->readWithTimeout(kLong);
    ASSERT_TRUE(data != nullptr && data->length() > 0) << received.size();
    received += data->view();
  }
  EXPECT_TRUE(received == sent);
  EXPECT_TRUE(channel->close());
}

TEST_P(ZPIActiveChannelDeviceTest, TheNullFormDrainsTheDeviceToo) {
  SimulatedDevice device(GetParam());
  const ZPKDataChannelPtr channel =
      createActiveNullChannel(createBaseChannelWithTransport(device.url()));
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  device.send(std::string(1000000, 'x'));
  EXPECT_TRUE(device.waitUntilAllIsSent());
  EXPECT_TRUE(channel->close());
}

TEST_P(ZPIActiveChannelDeviceTest, ItClosesInTheMiddleOfAFlood) {
  SimulatedDevice device(GetParam(), {.floods = true});
  const ZPKDataChannelPtr transport = createBaseChannelWithTransport(device.url());
  const ZPKDataChannelPtr channel = createActiveChannel(transport);
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(channel->openWithTimeout(1.0));
    std::future<bool> reader = std::async(std::launch::async, [&channel] {
      while (channel->readWithTimeout(kForever) != nullptr) {
      }
      return true;
    });
    ASSERT_NE(read(channel, kNow), "(null)");
    EXPECT_TRUE(channel->close());
    ASSERT_EQ(reader.wait_for(kPatience), std::future_status::ready);
    EXPECT_FALSE(transport->isOpened());
    if (GetParam() == Kind::kTerminal) device.liftExclusiveHold();
  }
}

TEST_P(ZPIActiveChannelDeviceTest, ItCanBeOpenedAgain) {
  TestClock clock;
  SimulatedDevice device(GetParam(), {.responses = {{"version", "1.0\n"}}});
  const ZPKDataChannelPtr chain = chainOver(activeOver(device));
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(chain->openWithTimeout(1.0));
    ASSERT_TRUE(write(chain, "version\n"));
    EXPECT_EQ(read(chain, kLong), "1.0\n=> ");
    {
      const SkippedWaits skipped(clock);
      EXPECT_TRUE(chain->close());
    }
    EXPECT_TRUE(chain->reset());
    if (GetParam() == Kind::kTerminal) device.liftExclusiveHold();
  }
}

TEST_P(ZPIActiveChannelDeviceTest, CloseReportsAHangUpInTheTransportsWords) {
  SimulatedDevice device(GetParam());
  const ZPKDataChannelPtr transport = createBaseChannelWithTransport(device.url());
  const ZPKDataChannelPtr channel = createActiveChannel(transport);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  if (GetParam() != Kind::kTerminal) {
    ASSERT_TRUE(device.waitForConnections(1));
  }
  const LogCapture log;
  device.hangUp();
  ASSERT_TRUE(waitFor([&] { return !transport->isOpened(); }));
  // The first closes may be too early: the error is stored last.
  ZPKErrorPtr error;
  ASSERT_TRUE(waitFor([&] {
    EXPECT_FALSE(channel->close(&error));
    return error->description() != "Device Already Closed";
  }));
  const std::string words = error->description();
  EXPECT_THAT(words, testing::StartsWith("Read failed with error "));
  expectError(error, {"zephal-communication", 2, words, "zephal_communication_read",
                      "DescriptorOperation.cpp"});
  EXPECT_EQ(log.count(words), 1U);
  EXPECT_FALSE(channel->close(&error));
  EXPECT_EQ(error->description(), words);
  EXPECT_EQ(channel->readWithTimeout(kForever, &error), nullptr);
  EXPECT_EQ(error->description(), "Cannot communicate with closed devices");
}

TEST_P(ZPIActiveChannelDeviceTest, AHangUpEndsAReadThatWaitsForever) {
  SimulatedDevice device(GetParam());
  const ZPKDataChannelPtr chain = chainOver(activeOver(device));
  ASSERT_TRUE(chain->openWithTimeout(1.0));
  if (GetParam() != Kind::kTerminal) {
    ASSERT_TRUE(device.waitForConnections(1));
  }
  std::future<ZPKDataPtr> reader =
      std::async(std::launch::async, [&chain] { return chain->readWithTimeout(kForever); });
  device.hangUp();
  ASSERT_EQ(reader.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(reader.get(), nullptr);
  EXPECT_FALSE(chain->isOpened());
}

TEST_P(ZPIActiveChannelDeviceTest, ItIsOpenAtOnceOverAnOpenTransport) {
  SimulatedDevice device(GetParam(), {.responses = {{"version", "1.0\n"}}});
  const ZPKDataChannelPtr transport = createBaseChannelWithTransport(device.url());
  ASSERT_TRUE(transport->openWithTimeout(1.0));
  const ZPKDataChannelPtr chain = chainOver(createActiveChannel(transport));
  EXPECT_TRUE(chain->isOpened());
  ASSERT_TRUE(write(chain, "version\n"));
  EXPECT_EQ(read(chain, kLong), "1.0\n=> ");
  EXPECT_TRUE(chain->close());
  EXPECT_FALSE(transport->isOpened());
}

// On each wake-up the thread asks once for waiting bytes and waits for one slice; it allocates
// nothing.
TEST_P(ZPIActiveChannelDeviceTest, AnIdleChannelDoesNothingBetweenItsSlices) {
  constexpr size_t kSlices = 8;
  ZPKData::data();  // the shared empty data is allocated at its first use
  SimulatedDevice device(GetParam());
  const ZPKDataChannelPtr channel = activeOver(device);
  TestClock clock;
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  // Once the reader's thread waits, it has finished starting.
  ASSERT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  SystemCalls calls(SystemCalls::Threads::kAll);
  for (size_t slice = 0; slice < kSlices; ++slice) {
    EXPECT_EQ(calls.texts().size(), 2 * slice);
    clock.advance(std::chrono::microseconds(33333));
    ASSERT_TRUE(waitFor([&] { return calls.texts().size() >= 2 * slice + 2; }));
    ASSERT_TRUE(waitFor([&] { return clock.waits() == 1; }));
  }
  EXPECT_EQ(calls.allocations(), 0U);
  std::vector<std::string> expected;
  for (size_t slice = 0; slice < kSlices; ++slice) {
    expected.insert(expected.end(), {"ioctl FIONREAD", "select 0.033333"});
  }
  EXPECT_EQ(calls.texts(), expected);
  const SkippedWaits skipped(clock);
  EXPECT_TRUE(channel->close());
}

class ZPIActiveChannelConnectionTest : public testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(Lines, ZPIActiveChannelConnectionTest,
                         testing::Values(Kind::kTCP, Kind::kUnix), nameOf);

TEST_P(ZPIActiveChannelConnectionTest, ItReconnectsAfterAHangUp) {
  SimulatedDevice device(GetParam(), {.responses = {{"version", "1.0\n"}}});
  const ZPKDataChannelPtr chain = chainOver(activeOver(device));
  const LogCapture log;
  for (size_t round = 1; round <= 20; ++round) {
    ASSERT_TRUE(chain->openWithTimeout(1.0));
    ASSERT_TRUE(device.waitForConnections(round));
    ASSERT_TRUE(write(chain, "version\n"));
    ASSERT_EQ(read(chain, kLong), "1.0\n=> ");
    device.hangUp();
    ASSERT_TRUE(waitFor([&] { return !chain->isOpened(); }));
  }
}

// The first allocation of a read that receives bytes is their buffer, which the transports' tests
// cover. The next ones are the data object around them and the room in the queue.
TEST(ZPIActiveChannelSocketTest, RunningOutOfMemoryIsAFailedRead) {
  const std::string words = std::string("Read failed with error ") + std::strerror(ENOMEM) + " (" +
                            std::to_string(ENOMEM) + ")";
  for (const size_t goodAllocations : {1U, 2U}) {
    TransportPeer peer(TransportPeer::Kind::kUnix);
    TestClock clock;
    const ZPKDataChannelPtr transport = peer.makeChannel();
    const ZPKDataChannelPtr channel = createActiveChannel(transport);
    ASSERT_TRUE(peer.open(channel));
    const LogCapture log;
    {
      ASSERT_TRUE(waitFor([&] { return clock.waits() == 1; }));
      SystemCalls calls(SystemCalls::Threads::kAll);
      const int line = peer.descriptor();
      calls.failAllocation(goodAllocations);
      const ssize_t sent = ::write(line, "x", 1);
      const bool hasFallen = waitFor([&] { return !transport->isOpened(); });
      EXPECT_EQ(sent, 1);
      ASSERT_TRUE(hasFallen);
    }
    ZPKErrorPtr error;
    ASSERT_TRUE(waitFor([&] { return !channel->close(&error) && error->description() == words; }));
    EXPECT_EQ(error->code(), 2);
    EXPECT_EQ(log.count(words), 1U);
    EXPECT_FALSE(channel->isOpened());
    ASSERT_TRUE(peer.open(channel));
    peer.send("again");
    EXPECT_EQ(read(channel, kLong), "again");
    const SkippedWaits skipped(clock);
    EXPECT_TRUE(channel->close());
  }
}

TEST(ZPIActiveChannelSocketTest, ACloseMayCoincideWithTheEndOfTheConnection) {
  constexpr std::chrono::seconds kLimit{100};
  const LogCapture log;
  const Clock::time_point deadline = Clock::now() + kLimit;
  for (int round = 0; round < 200; ++round) {
    SocketPair pair;
    const ZPKDataChannelPtr channel =
        createActiveChannel(createActiveTCPChannelWithSocket(pair.takeOurs()));
    std::future<bool> reader = std::async(std::launch::async, [&channel] {
      while (channel->readWithTimeout(kForever) != nullptr) {
      }
      return true;
    });
    std::thread peer([&pair] {
      // Nobody receives it if the channel was closed first.
      const ssize_t sent = ::send(pair.peers, "bye", 3, MSG_NOSIGNAL);
      EXPECT_TRUE(sent == 3 || (sent < 0 && errno == EPIPE));
      pair.closePeer();
    });
    ZPKErrorPtr error;
    if (!channel->close(&error)) {
      EXPECT_EQ(error->code(), 2);
    }
    EXPECT_FALSE(channel->isOpened());
    peer.join();
    ASSERT_EQ(reader.wait_until(deadline), std::future_status::ready) << round;
  }
}

}  // namespace
