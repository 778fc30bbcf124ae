// A manager over framed channels and over real connections.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Channel/ZPKDataChannelManager.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/Managers.h"
#include "Support/RecordingDelegate.h"
#include "Support/ScriptedChannel.h"
#include "Support/SystemCalls.h"
#include "Support/ThreadCalls.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPKDictionary.h"

using namespace support;

namespace {

using testing::ElementsAre;

// Reads and writes whole packets, each preceded by its size in two bytes; can be closed during a
// read.
ZPKDataChannelPtr makeFramed(const ZPKDataChannelPtr& transport) {
  return createPassiveChannel(createChannelTransformerWithPreCall(
      createActiveChannel(transport), {createPacketAggregatorTransformer(2)},
      {createPacketPrependTransformer(2)}));
}

std::string packet(const ZPKValue& value) {
  const std::string payload(archive(value)->view());
  return {std::string{static_cast<char>(payload.size() >> 8), static_cast<char>(payload.size())} +
          payload};
}

// A manager on a thread of its own, over a channel whose far end is the test's.
class ZPKDataChannelManagerConnectionTest : public testing::Test {
 protected:
  void open(ZPKDataChannelPtr channel) {
    _channel = std::move(channel);
    ASSERT_TRUE(_peer.open(_channel));
    _manager = makeManager(_channel, _delegate, kDetached);
  }

  const LogCapture _log;
  TransportPeer _peer{TransportPeer::Kind::kTCP};
  const std::shared_ptr<RecordingDelegate> _delegate = RecordingDelegate::make();
  ZPKDataChannelPtr _channel;
  ZPKDataChannelManagerPtr _manager;
};

TEST_F(ZPKDataChannelManagerConnectionTest, OnlyAPassiveChannelSkipsAnEmptyPacket) {
  for (const bool hasPassive : {false, true}) {
    const auto below = ScriptedChannel::make();
    for (const std::string& bytes : {packet(1), std::string(2, '\0'), packet(2)}) {
      below->addRead(bytes);
    }
    below->addFailedRead(nullptr);
    ZPKDataChannelPtr channel =
        createChannelTransformer(below, {createPacketAggregatorTransformer(2)}, {});
    if (hasPassive) channel = createPassiveChannel(channel);
    const auto delegate = RecordingDelegate::make();
    const auto manager = makeManager(channel, delegate);
    EXPECT_TRUE(manager->listen());
    EXPECT_EQ(delegate->count("message 1"), 1U);
    EXPECT_EQ(delegate->count("message 2"), hasPassive ? 1U : 0U);
  }
}

TEST_F(ZPKDataChannelManagerConnectionTest, DisconnectEndsALoopThatWaitsOnAnActiveChannel) {
  open(createActiveChannel(_peer.makeChannel()));
  EXPECT_TRUE(_manager->listen());
  _peer.send(std::string(archive("hello")->view()));
  EXPECT_TRUE(waitFor([&] { return _delegate->count("message hello") == 1; }));
  _manager->disconnect();
  releaseManager(&_manager);
  EXPECT_THAT(_delegate->events(), ElementsAre("message hello", "disconnect null idle"));
  EXPECT_FALSE(_channel->isOpened());
}

// A read that has begun to wait holds the lock of its queue until it sleeps, so the close finds the
// loop in its read of 1000 seconds, on a thread of its own or on the caller's.
TEST_F(ZPKDataChannelManagerConnectionTest, DisconnectEndsALoopThatSleepsInItsRead) {
  for (const bool isFramed : {false, true}) {
    for (const bool option : {kDetached, kUndetached}) {
      TransportPeer peer(TransportPeer::Kind::kTCP);
      const ZPKDataChannelPtr channel =
          isFramed ? makeFramed(peer.makeChannel()) : createActiveChannel(peer.makeChannel());
      ASSERT_TRUE(peer.open(channel));
      const auto delegate = RecordingDelegate::make();
      auto manager = makeManager(channel, delegate, option);
      const size_t waits = limitedWaits();
      std::thread caller([manager] { EXPECT_TRUE(manager->listen()); });
      EXPECT_TRUE(waitFor([&] { return limitedWaits() > waits; }));
      EXPECT_TRUE(manager->started());
      manager->disconnect();
      EXPECT_TRUE(waitFor([&] { return delegate->count("disconnect null idle") == 1; }));
      caller.join();
      releaseManager(&manager);
      EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
      EXPECT_FALSE(channel->isOpened());
    }
  }
}

TEST_F(ZPKDataChannelManagerConnectionTest, DisconnectEndsALoopOnABareSocket) {
  open(_peer.makeChannel());
  {
    const SystemCalls calls(SystemCalls::Threads::kAll);
    EXPECT_TRUE(_manager->listen());
    EXPECT_TRUE(waitFor([&] { return calls.count("select 1000.000000") == 1; }));
  }
  _manager->disconnect();
  EXPECT_TRUE(waitFor([&] { return _delegate->count("disconnect null idle") == 1; }));
  _peer.hangUp();  // frees the loop if the disconnect did not
  releaseManager(&_manager);
  EXPECT_THAT(_delegate->events(), ElementsAre("disconnect null idle"));
}

TEST_F(ZPKDataChannelManagerConnectionTest, AHangUpEndsTheLoop) {
  open(_peer.makeChannel());
  EXPECT_TRUE(_manager->listen());
  _peer.hangUp();
  releaseManager(&_manager);
  EXPECT_THAT(_delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_FALSE(_channel->isOpened());
}

// The packets of two messages, however the connection splits them:
//
//     size payload | size payload      all in one read
//     si | ze payl | oad size ...      pieces of every length
TEST_F(ZPKDataChannelManagerConnectionTest, FramingBelowTheManagerJoinsWhatTheConnectionSplits) {
  open(makeFramed(_peer.makeChannel()));
  EXPECT_TRUE(_manager->listen());
  const std::string both = packet({{"slot", 3}}) + packet("second");
  size_t expected = 0;
  for (size_t piece = 1; piece <= both.size(); piece += 7) {
    for (size_t at = 0; at < both.size(); at += piece) {
      _peer.send(both.substr(at, piece));
    }
    ++expected;
    ASSERT_TRUE(waitFor([&] { return _delegate->count("message second") == expected; })) << piece;
    EXPECT_EQ(_delegate->count("message {\"slot\": 3}"), expected);
  }
  EXPECT_TRUE(_channel->write(archive("answer")));
  EXPECT_EQ(_peer.receive(packet("answer").size()), packet("answer"));
  _manager->disconnect();
  releaseManager(&_manager);
  EXPECT_EQ(_delegate->count("disconnect null idle"), 1U);
}

}  // namespace
