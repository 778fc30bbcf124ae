// Peers that hang up in the middle of what is written to them.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <set>
#include <string>
#include <thread>

#include "Support/Bytes.h"
#include "Support/EventWait.h"
#include "Support/OpenDescriptors.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

constexpr double kSeconds = 30;

void expectCommunicationError(const ZPKErrorPtr& error, size_t place) {
  if (error == nullptr) return;  // a clean end of the connection
  EXPECT_TRUE(error->domain().ends_with("zephal-communication")) << error->domain();
  EXPECT_EQ(error->code(), 5) << place;
}

// The end of a connection is seen by a read: it fails, and closes the channel.
void expectEnd(const ZPKDataChannelPtr& channel, size_t place) {
  ZPKErrorPtr error;
  for (ZPKDataPtr data = ZPKData::data(); data != nullptr && channel->isOpened();) {
    data = channel->readWithTimeout(kSeconds, &error);
  }
  EXPECT_FALSE(channel->isOpened()) << place;
  expectCommunicationError(error, place);
  EXPECT_FALSE(channel->write(dataOf("more"))) << place;
  EXPECT_EQ(channel->readWithTimeout(0.0), nullptr) << place;
  EXPECT_FALSE(channel->close()) << place;
}

class HostilePeersTest : public testing::TestWithParam<TransportPeer::Kind> {};

TEST_P(HostilePeersTest, AHangUpAfterAnyByteOfAWriteLeavesNothingBehind) {
  const std::string command = "read voltage 3\r\n";
  const std::set<int> before = openDescriptors();
  for (size_t taken = 0; taken <= command.size(); ++taken) {
    TransportPeer peer(GetParam());
    const ZPKDataChannelPtr channel = peer.makeChannel();
    ASSERT_TRUE(peer.open(channel));
    ASSERT_TRUE(channel->write(dataOf(command)));
    ASSERT_EQ(peer.receive(taken), command.substr(0, taken));
    peer.hangUp();
    expectEnd(channel, taken);
  }
  EXPECT_EQ(openDescriptors(), before);
}

// The peer has taken some of more than any buffer holds, so the writer is waiting for it.
TEST_P(HostilePeersTest, AHangUpEndsAWriteThatWaits) {
  const ZPKDataPtr much = dataOf(std::string(size_t{16} << 20, 'x'));
  const std::set<int> before = openDescriptors();
  for (const size_t taken : {0U, 1U, 4095U, 4096U, 4097U, 65536U, 200000U}) {
    TransportPeer peer(GetParam());
    const ZPKDataChannelPtr channel = peer.makeChannel();
    ASSERT_TRUE(peer.open(channel));
    ZPKErrorPtr error;
    bool isWritten = true;
    std::thread writer([&] { isWritten = channel->write(much, &error); });
    EXPECT_EQ(peer.receive(taken).size(), taken);
    peer.hangUp();
    writer.join();
    EXPECT_FALSE(isWritten) << taken;
    ASSERT_NE(error, nullptr);
    expectCommunicationError(error, taken);
    expectEnd(channel, taken);
  }
  EXPECT_EQ(openDescriptors(), before);
}

std::string kindName(const testing::TestParamInfo<TransportPeer::Kind>& info) {
  return transportName(info.param);
}

INSTANTIATE_TEST_SUITE_P(Lines, HostilePeersTest,
                         testing::Values(TransportPeer::Kind::kTerminal, TransportPeer::Kind::kTCP,
                                         TransportPeer::Kind::kUnix, TransportPeer::Kind::kAdopted),
                         kindName);

class HostileSocketPeersTest : public HostilePeersTest {};

// It sends no more, and goes on reading.
TEST_P(HostileSocketPeersTest, AHalfClosedConnectionEndsWithWhatWasSent) {
  TransportPeer peer(GetParam());
  const ZPKDataChannelPtr channel = peer.makeChannel();
  ASSERT_TRUE(peer.open(channel));
  peer.send("the last words");
  ASSERT_EQ(::shutdown(peer.descriptor(), SHUT_WR), 0);
  EXPECT_TRUE(channel->write(dataOf("still read")));
  EXPECT_EQ(peer.receive(10), "still read");
  EXPECT_EQ(bytesOf(channel->readWithTimeout(kSeconds)), "the last words");
  expectEnd(channel, 0);
}

INSTANTIATE_TEST_SUITE_P(Lines, HostileSocketPeersTest,
                         testing::Values(TransportPeer::Kind::kTCP, TransportPeer::Kind::kUnix,
                                         TransportPeer::Kind::kAdopted),
                         kindName);

}  // namespace
