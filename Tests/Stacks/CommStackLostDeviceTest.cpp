// Devices that go away in the middle of a command, while the rest of the program opens and closes
// descriptors of its own.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Data Stack/ZPKCommStack.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/SocketPair.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

constexpr int kDevices = 3;
constexpr int kLossesOfEach = 25;
// More than a socket buffers.
constexpr size_t kCommandSize = 2U << 20U;

bool hasOnly(char number, std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [number](char byte) { return byte == number; });
}

// Connections of the program's own, over which nothing is ever sent.
class SilentConnections {
 public:
  bool areSilent() const {
    return std::all_of(_pairs.begin(), _pairs.end(), [](const SocketPair& pair) {
      return isSilent(pair.ours) && isSilent(pair.peers);
    });
  }

 private:
  static bool isSilent(int end) {
    char byte = 0;
    return ::recv(end, &byte, 1, MSG_DONTWAIT) < 0;
  }

  std::array<SocketPair, 4> _pairs;
};

// Every command to a device consists of the device's number. The device reads the beginning of one,
// shuts down its own side, and hangs up once the stack has noticed and the program has opened
// something else. True if the rest of the command reached nobody.
bool loseADevice(char number) {
  TransportPeer device(TransportPeer::Kind::kAdopted);
  const ZPKDataChannelPtr transport = device.makeChannel();
  const auto stack = ZPKCommStack::init();
  stack->setActiveChannelOnOff(true);
  EXPECT_TRUE(stack->createStackWithBaseChannel(transport));
  auto writer = std::async(std::launch::async, [&] {
    return stack->writeData(ZPKData::dataWithString(std::string(kCommandSize, number)));
  });
  const std::string taken = device.receive(1000);
  ::shutdown(device.descriptor(), SHUT_WR);
  EXPECT_TRUE(waitFor([&] { return !transport->isOpened(); }));
  bool areSilent = true;
  {
    const SilentConnections connections;
    device.hangUp();
    EXPECT_TRUE(waitFor([&] {
      areSilent = areSilent && connections.areSilent();
      return !areSilent || writer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    areSilent = areSilent && connections.areSilent();
  }
  EXPECT_FALSE(writer.get());
  return areSilent && taken.size() == 1000 && hasOnly(number, taken);
}

TEST(CommStackLostDeviceTest, NoByteOfACommandReachesAnotherConnection) {
  const LogCapture log;
  std::atomic<int> losses{0};
  std::atomic<int> strays{0};
  std::atomic<bool> isOver{false};
  std::vector<std::thread> threads;
  for (int other = 0; other < 2; ++other) {
    threads.emplace_back([&] {
      while (!isOver) {
        const SilentConnections connections;
        const int before = losses;
        waitFor([&] { return isOver || losses > before; }, std::chrono::milliseconds(20));
        if (!connections.areSilent()) ++strays;
      }
    });
  }
  std::vector<std::future<bool>> devices;
  for (int device = 0; device < kDevices; ++device) {
    devices.push_back(std::async(std::launch::async, [&, number = static_cast<char>('0' + device)] {
      bool isClean = true;
      for (int loss = 0; loss < kLossesOfEach; ++loss, ++losses) {
        isClean = loseADevice(number) && isClean;
      }
      return isClean;
    }));
  }
  for (auto& device : devices) EXPECT_TRUE(device.get());
  isOver = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(strays, 0);
}

}  // namespace
