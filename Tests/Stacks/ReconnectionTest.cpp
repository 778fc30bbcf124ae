// A caller that sees that a connection is lost and immediately starts the next one, on the objects
// that the last reader worked with. For a race detector: the only thing here that orders the caller
// after that reader is the answer that the channel is closed. So there is no log capture and no
// wait for the reader, which stays in its last system call until the next reader has worked.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Channel/ZPKDataChannelManager.h"
#include "Data Server/ZPKTCPServer.h"
#include "Data Stack/ZPKCommLoggerStack.h"
#include "Data Stack/ZPKCommStack.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Support/EventWait.h"
#include "Support/SimulatedDevice.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

// Each round has two connections.
constexpr int kRounds = 5;
// Its end stays buffered, since no delimiter follows.
constexpr std::string_view kSpeech = "one=> two=> thr";

class ReconnectionTest : public testing::Test {
 protected:
  void speakAndHangUp() {
    ASSERT_TRUE(_device.waitForConnections(++_connections));
    _device.send(kSpeech);
    _device.hangUp();
  }

  template <class Stack>
  void expectLost(const Stack& stack) {
    speakAndHangUp();
    ASSERT_TRUE(waitFor([&] { return stack->isOpen() == 0; }));
  }

  // Opens the same chain each time.
  template <class Stack>
  void reopenAtOnce(const Stack& stack) {
    ASSERT_TRUE(stack->createStackWithURL(_device.url()));
    for (int round = 0; round < kRounds; ++round) {
      const HeldCloses closes;
      for (const int connection : {1, 2}) {
        ASSERT_TRUE(stack->openWithTimeout(1)) << connection;
        ASSERT_NO_FATAL_FAILURE(expectLost(stack));
      }
    }
  }

  // Creates a new chain each time, in which the stack's aggregator stays the same.
  template <class Stack>
  void recreateAtOnce(const Stack& stack) {
    for (int round = 0; round < kRounds; ++round) {
      const HeldCloses closes;
      for (const int connection : {1, 2}) {
        ASSERT_TRUE(stack->createStackWithURL(_device.url())) << connection;
        ASSERT_TRUE(stack->openWithTimeout(1));
        ASSERT_NO_FATAL_FAILURE(expectLost(stack));
      }
    }
  }

  static ZPKCommLoggerStackPtr loggerStack() {
    auto stack = ZPKCommLoggerStack::init();
    stack->setDelimiter("=> ");
    return stack;
  }

  static ZPKCommStackPtr readingStack() {
    auto stack = ZPKCommStack::init();
    stack->setDelimiter("=> ");
    stack->setActiveChannelOnOff(true);
    return stack;
  }

 private:
  SimulatedDevice _device{SimulatedDevice::Kind::kUnix};
  size_t _connections = 0;

 protected:
  const std::string& url() const { return _device.url(); }
};

TEST_F(ReconnectionTest, ALoggerStackIsReopenedAtOnce) { reopenAtOnce(loggerStack()); }

TEST_F(ReconnectionTest, ALoggerStackIsCreatedAgainAtOnce) { recreateAtOnce(loggerStack()); }

TEST_F(ReconnectionTest, AReadingStackIsReopenedAtOnce) { reopenAtOnce(readingStack()); }

TEST_F(ReconnectionTest, AReadingStackIsCreatedAgainAtOnce) { recreateAtOnce(readingStack()); }

// Lets a manager's loop run until its channel is lost.
class Listener final : public ZPKDataChannelManagerDelegate {
  bool shouldDeserializeData(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                             const ZPKDataPtr& data) override {
    return data == nullptr;
  }
};

TEST_F(ReconnectionTest, AManagersConnectionIsReplacedAtOnce) {
  const auto listener = std::make_shared<Listener>();
  const auto aggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(ZPKData::dataWithString("=> "));
  std::vector<std::weak_ptr<ZPKDataChannelManager>> managers;
  for (int round = 0; round < kRounds; ++round) {
    const HeldCloses closes;
    for (const int connection : {1, 2}) {
      const auto channel =
          createAggregatingTransformerChannel(createBaseChannelWithTransport(url()), aggregator);
      ASSERT_TRUE(channel->openWithTimeout(1.0)) << connection;
      const auto manager = ZPKDataChannelManager::managerWithDataChannel(channel, listener);
      managers.push_back(manager);
      ASSERT_TRUE(manager->listen());
      ASSERT_NO_FATAL_FAILURE(speakAndHangUp());
      ASSERT_TRUE(waitFor([&] { return !channel->isOpened(); }));
    }
  }
  EXPECT_TRUE(waitFor([&] {
    return std::all_of(managers.begin(), managers.end(),
                       [](const auto& manager) { return manager.expired(); });
  }));
}

TEST_F(ReconnectionTest, AServersConnectionIsReplacedAtOnce) {
  ZPKAtomic<ZPKDataChannelPtr> arrival;
  const auto server = startTCPServerOnPort(
      0, [&arrival](const ZPKDataChannelPtr& channel) { arrival.store(channel); });
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(server->handle(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  const auto stack = loggerStack();
  for (int round = 0; round < kRounds; ++round) {
    const HeldCloses closes;
    for (const int connection : {1, 2}) {
      const int client = active_tcp("127.0.0.1", ntohs(address.sin_port));
      ASSERT_TRUE(waitFor([&] { return arrival.load() != nullptr; })) << connection;
      ASSERT_TRUE(stack->createStackWithBaseChannel(arrival.load()));
      arrival.store(nullptr);
      EXPECT_EQ(::send(client, kSpeech.data(), kSpeech.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(kSpeech.size()));
      ::close(client);
      ASSERT_TRUE(waitFor([&] { return stack->isOpen() == 0; }));
    }
  }
  EXPECT_TRUE(server->stop());
}

}  // namespace
