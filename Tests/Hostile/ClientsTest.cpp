// Many, silent and restless clients of a server, and a lack of descriptors.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Data Server/ZPKTCPServer.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/LineEnds.h"
#include "Support/OpenDescriptors.h"
#include "Support/ProcessStatus.h"
#include "Support/TCPServerFixture.h"
#include "Support/TemporaryFolder.h"

using namespace support;

namespace {

// Sets how many descriptors the process may have, for as long as it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t wanted) {
    ::getrlimit(RLIMIT_NOFILE, &_before);
    _now = {std::min(wanted, _before.rlim_max), _before.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &_now), 0);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &_before); }

  size_t now() const { return _now.rlim_cur; }

 private:
  rlimit _before{};
  rlimit _now{};
};

// Leaves the process exactly this many descriptors.
class FewDescriptors {
 public:
  explicit FewDescriptors(size_t count) : _limit(rlim_t(*openDescriptors().rbegin()) + 1 + count) {
    for (int fill = 0; fill >= 0;) {
      fill = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
      if (fill >= 0) _fills.push_back(fill);
    }
    for (size_t i = 0; i < count; ++i) closeOne();
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;
  ~FewDescriptors() {
    while (!_fills.empty()) closeOne();
  }

 private:
  void closeOne() {
    ::close(_fills.back());
    _fills.pop_back();
  }

  const DescriptorLimit _limit;
  std::vector<int> _fills;
};

using HostileClientsTest = TCPServerFixture;

TEST_F(HostileClientsTest, AThousandSilentClientsKeepNobodyWaiting) {
  const DescriptorLimit limit(4096);
  const size_t count = std::min<size_t>(1000, (limit.now() - 100) / 2);
  const std::set<int> before = openDescriptors();
  const size_t heapBefore = allocatedBytes();
  {
    Arrivals arrivals;
    const auto server = startTCPServerOnPort(0, arrivals.takeChannels());
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t i = 0; i < count; ++i) {
      clients.push_back(std::make_unique<Client>(portOf(server->handle())));
      // The backlog has room for five, and a client that finds it full tries again after a second.
      if (i % 4 == 3) {
        ASSERT_TRUE(arrivals.waitForCount(i + 1));
      }
    }
    ASSERT_TRUE(arrivals.waitForCount(count));
    EXPECT_LT((allocatedBytes() - heapBefore) / count, 4096U);  // 0 with AddressSanitizer
    clients.front()->send("ping");
    EXPECT_EQ(arrivals.channel(0)->readWithTimeout(30.0)->view(), "ping");
    const Client late(portOf(server->handle()));
    EXPECT_TRUE(arrivals.waitForCount(count + 1));
    EXPECT_TRUE(server->stop());
  }
  EXPECT_EQ(openDescriptors(), before);
}

// Ends its connection with a reset, as soon as it is made.
void connectAndReset(int port) {
  const Client client(port);
  const linger hard{1, 0};
  ::setsockopt(client.socket(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

// Ends it once the server has read something, and has ended it too.
void connectAndLeave(int port) {
  const Client client(port);
  client.send("bye");
  EXPECT_TRUE(client.sawTheEnd());
}

TEST_F(HostileClientsTest, AClientThatReconnectsWithoutAPauseLeavesNothingBehind) {
  constexpr size_t kTimes = 400;
  const std::set<int> before = openDescriptors();
  const size_t threadsBefore = processStatus("Threads");
  const auto server = startTCPServerOnPort(0, [](const ZPKDataChannelPtr& channel) {
    channel->readWithTimeout(30.0);
    if (channel->isOpened()) channel->close();
  });
  for (size_t i = 0; i < kTimes; ++i) {
    const auto connect = i % 4 == 3 ? connectAndLeave : connectAndReset;
    connect(portOf(server->handle()));
  }
  EXPECT_TRUE(server->stop());
  EXPECT_TRUE(waitFor([&] { return processStatus("Threads") <= threadsBefore; }));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(HostileClientsTest, WithoutDescriptorsAStackAndItsLogsFailAndComeBack) {
  const TemporaryFolder folder;
  const Listener device = listenAt(folder.pathOf("line"));
  const auto stack = ZPKCommStack::init();
  stack->setLogFilePath(folder.pathOf("post.log"), folder.pathOf("pre.log"));
  ASSERT_TRUE(stack->createStackWithURL(device.url()));
  // UndefinedBehaviorSanitizer takes descriptors of its own when it first sees a class.
  ASSERT_TRUE(stack->openWithTimeout(5));
  EXPECT_TRUE(stack->close());
  ASSERT_TRUE(stack->createStackWithURL(device.url()));
  const std::set<int> before = openDescriptors();
  for (size_t free = 0; free < 3; ++free) {  // the line and two logs need one each
    ASSERT_TRUE(stack->createStackWithURL(device.url()));
    const FewDescriptors few(free);
    EXPECT_FALSE(stack->openWithTimeout(5)) << free;
    if (stack->isOpen() != 0) stack->close();
  }
  ASSERT_TRUE(stack->createStackWithURL(device.url()));  // closes the logs of the last try
  EXPECT_EQ(openDescriptors(), before);
  ASSERT_TRUE(stack->openWithTimeout(5));
  EXPECT_TRUE(stack->writeString("version"));
  EXPECT_TRUE(stack->close());
  EXPECT_NE(contentsOfFile(folder.pathOf("post.log")).find("version"), std::string::npos);
  ::close(device.descriptor);
}

}  // namespace
