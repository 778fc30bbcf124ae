#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <thread>

#include "ZephalConsole/Internal/Line.h"

namespace {

using namespace zephal::internal;
using namespace std::chrono_literals;

class ALine : public testing::Test {
 protected:
  ALine() {
    std::array<int, 2> ends{};
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data());
    line.emplace(Descriptor(ends[0]), nullptr);
    peer = Descriptor(ends[1]);
  }

  Line::ReadResult read(Deadline deadline = Deadline::after(20s)) {
    return line->read(buffer.data(), buffer.size(), deadline, wakeup);
  }

  const Wakeup wakeup;
  std::optional<Line> line;
  Descriptor peer;
  std::array<char, 100> buffer{};
};

TEST_F(ALine, ReadsWhatIsThere) {
  ASSERT_EQ(::write(peer.number(), "abc", 3), 3);
  const Line::ReadResult result = read();
  EXPECT_EQ(std::string_view(buffer.data(), result.count), "abc");
  EXPECT_FALSE(result.hasEnded);
}

TEST_F(ALine, WaitsForBytes) {
  std::thread other([this] { EXPECT_EQ(::write(peer.number(), "a", 1), 1); });
  EXPECT_EQ(read().count, 1U);
  other.join();
}

TEST_F(ALine, ReadsNothingWhenItsTimeIsUp) {
  const Line::ReadResult result = read(Deadline::after(0s));
  EXPECT_EQ(result.count, 0U);
  EXPECT_FALSE(result.hasEnded);
}

TEST_F(ALine, IsWokenAndLeavesTheWakeupSet) {
  std::thread other([this] { wakeup.wake(); });
  EXPECT_TRUE(read().isWoken);
  EXPECT_TRUE(read().isWoken);
  other.join();
}

TEST_F(ALine, TellsThatItHasEnded) {
  peer = Descriptor();
  const Line::ReadResult result = read();
  EXPECT_TRUE(result.hasEnded);
  EXPECT_EQ(result.error, 0);
}

TEST_F(ALine, WritesWhatTheSystemAcceptsAndNoMore) {
  const std::string much(1 << 20, 'x');
  ssize_t sum = 0;
  for (ssize_t count = 1; count > 0; sum += count) count = line->writeSome(much);
  EXPECT_GT(sum, 0);
  line->waitToWrite(false, Deadline::after(10ms), wakeup);
  EXPECT_EQ(line->writeSome(much), 0);
}

TEST_F(ALine, FailsToWriteToAPeerThatHasGone) {
  peer = Descriptor();
  EXPECT_EQ(line->writeSome("a"), -1);
  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
