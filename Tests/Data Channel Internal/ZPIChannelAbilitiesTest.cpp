#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "Data Channel Internal/ZPIChannelAbilities.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/LogFile.h"
#include "Support/PassingChannel.h"
#include "Support/ScriptedChannel.h"
#include "Support/SocketPair.h"
#include "Support/TemporaryFolder.h"
#include "Support/TransportPeer.h"
#include "Support/WaitingChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;

// A passive channel over an aggregating one over a script, with or without a caller's channel
// between the two.
class Chain {
 public:
  explicit Chain(bool hasCallersChannel) {
    ZPKDataChannelPtr channel = createAggregatingTransformerChannel(below, aggregator);
    if (hasCallersChannel) channel = between = std::make_shared<PassingChannel>(channel);
    top = createPassiveChannel(channel);
  }

  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
  const ZPKMutableDataAggregatorTransformerPtr aggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  std::shared_ptr<PassingChannel> between;
  ZPKDataChannelPtr top;
};

TEST(ZPIChannelAbilitiesTest, AnAggregatingChannelPassesUpAHeldUnit) {
  const Chain chain(false);
  const auto channel = createAggregatingTransformerChannel(chain.below, chain.aggregator);
  ZPIChannelAbilities* const abilities = ZPIChannelAbilities::of(channel.get());
  ASSERT_NE(abilities, nullptr);
  EXPECT_EQ(abilities->takeHeldUnit(), nullptr);
  chain.aggregator->buffer()->setContents(*dataOf("a;b;c"));
  EXPECT_EQ(bytesOf(abilities->takeHeldUnit()), "a;");
  EXPECT_EQ(bytesOf(abilities->takeHeldUnit()), "b;");
  EXPECT_EQ(abilities->takeHeldUnit(), nullptr);
  EXPECT_EQ(chain.aggregator->buffer()->view(), "c");
  EXPECT_THAT(chain.below->calls(), ElementsAre());
}

TEST(ZPIChannelAbilitiesTest, DecoratorsNameTheChannelThatAnswersIsOpened) {
  const auto base = ScriptedChannel::make();
  const TemporaryFolder folder;
  ZPKDataChannelPtr channel = createLoggingChannel(base, folder.pathOf("log"), "pre-", true);
  EXPECT_EQ(ZPIChannelAbilities::of(channel.get())->openSource(), base.get());
  channel = createAggregatingTransformerChannel(
      channel, ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";")));
  EXPECT_EQ(ZPIChannelAbilities::of(channel.get())->openSource(), base.get());
  channel = createPassiveChannel(channel);
  EXPECT_EQ(ZPIChannelAbilities::of(channel.get())->openSource(), base.get());
  channel = createChannelTransformer(channel, {}, {});
  EXPECT_EQ(ZPIChannelAbilities::of(channel.get())->openSource(), base.get());
}

TEST(ZPIChannelAbilitiesTest, ACallersChannelAnswersIsOpenedItself) {
  const auto callers =
      std::make_shared<PassingChannel>(createPassiveChannel(ScriptedChannel::make()));
  const ZPKDataChannelPtr channel = createPassiveChannel(callers);
  EXPECT_EQ(ZPIChannelAbilities::of(channel.get())->openSource(), callers.get());
  EXPECT_TRUE(channel->isOpened());
  EXPECT_EQ(callers->questions, 1);
}

// Its state is more than that of the channel below.
TEST(ZPIChannelAbilitiesTest, AnActiveChannelAnswersIsOpenedItself) {
  const ZPKDataChannelPtr active = createActiveChannel(WaitingChannel::make());
  const ZPKDataChannelPtr channel = createPassiveChannel(active);
  EXPECT_EQ(ZPIChannelAbilities::of(channel.get())->openSource(), active.get());
}

TEST(ZPIChannelAbilitiesTest, ALoggingChannelLogsAHeldUnitThatItPassesUp) {
  const Chain chain(false);
  const TemporaryFolder folder;
  const std::string path = folder.pathOf("log");
  const ZPKDataChannelPtr logging = createLoggingChannel(
      createAggregatingTransformerChannel(chain.below, chain.aggregator), path, "post", true);
  chain.below->setOpened(false);
  ASSERT_TRUE(logging->openWithTimeout(1.0));
  chain.aggregator->buffer()->setContents(*dataOf("a;b"));
  ZPIChannelAbilities* const abilities = ZPIChannelAbilities::of(logging.get());
  EXPECT_EQ(bytesOf(abilities->takeHeldUnit()), "a;");
  EXPECT_EQ(abilities->takeHeldUnit(), nullptr);
  EXPECT_THAT(textsOfLog(path), ElementsAre("post--read: a;"));
}

TEST(ZPIChannelAbilitiesTest, ACallersChannelHasNone) {
  const Chain chain(true);
  EXPECT_EQ(ZPIChannelAbilities::of(chain.below.get()), nullptr);
  EXPECT_EQ(ZPIChannelAbilities::of(chain.between.get()), nullptr);
}

TEST(ZPIChannelAbilitiesTest, AReadPassesAHeldUnitThroughACallersChannel) {
  const Chain chain(true);
  chain.below->addRead("a;b;");
  EXPECT_EQ(bytesOf(chain.top->readWithTimeout(1000.0)), "a;");
  EXPECT_EQ(bytesOf(chain.top->readWithTimeout(1000.0)), "b;");
  EXPECT_EQ(chain.between->reads, 2);
  EXPECT_THAT(chain.below->readTimeouts(), ElementsAre(100.0));
}

// One step of a script for both chains.
class Step {
 public:
  explicit Step(std::mt19937& random) : _choice(random() % 20) {
    _chunk = randomText(random, "abc;", random() % 10 == 0 ? 200 : 8);
    _terminator = randomText(random, "ab;", 2);
    const double kTimeouts[] = {ZEPHAL_COMMUNICATION_TIME_NOW, -0.5, -10.0};
    _timeout = kTimeouts[random() % 3];
  }

  // Everything a caller can see of the step.
  std::string playOn(const Chain& chain) const {
    if (_choice == 0) chain.aggregator->setData2Find(dataOf(_terminator));
    if (_choice == 1) chain.aggregator->setData2Find(nullptr);
    if (_choice == 2) chain.below->addFailedRead(errorWithCode(5));
    if (_choice == 3) chain.below->addFailedRead(nullptr, false);
    if (_choice == 4) chain.below->setOpened(false);
    if (_choice > 12) chain.below->addRead(_chunk);
    ZPKErrorPtr error = olderError();
    const ZPKDataPtr data = chain.top->readWithTimeout(_timeout, &error);
    const std::string seen = bytesOf(data).value_or("null") + ", error " +
                             (error == nullptr ? "null" : std::to_string(error->code())) +
                             ", held " + std::string(chain.aggregator->buffer()->view()) +
                             (chain.top->isOpened() ? ", open" : ", closed");
    chain.below->setOpened(true);
    return seen;
  }

 private:
  unsigned long _choice;
  std::string _chunk;
  std::string _terminator;
  double _timeout;
};

TEST(ZPIChannelAbilitiesTest, WithAndWithoutThemEveryReadReturnsTheSame) {
  const Chain plain(true);
  const Chain able(false);
  std::mt19937 random(17);
  for (int call = 0; call < 20'000; ++call) {
    const Step step(random);
    ASSERT_EQ(step.playOn(able), step.playOn(plain)) << "call " << call;
  }
  EXPECT_EQ(able.below->readTimeouts(), plain.below->readTimeouts());
}

TEST(ZPIChannelAbilitiesTest, OnlyATransportReadsOntoHeldBytes) {
  SocketPair pair;
  const ZPKDataChannelPtr transport = createActiveTCPChannelWithSocket(pair.takeOurs());
  const ZPKMutableDataPtr held = unitOf("rest");
  pair.send("more");
  const ZPKDataChannelPtr passive = createPassiveChannel(transport);
  EXPECT_FALSE(ZPIChannelAbilities::of(passive.get())->readOnto(held.get(), 20.0, nullptr));
  const auto result = ZPIChannelAbilities::of(transport.get())->readOnto(held.get(), 20.0, nullptr);
  EXPECT_EQ(bytesOf(result.value()), "");
  EXPECT_EQ(held->view(), "restmore");
  EXPECT_TRUE(transport->close());
  ZPKErrorPtr error;
  EXPECT_EQ(ZPIChannelAbilities::of(transport.get())->readOnto(held.get(), 20.0, &error), nullptr);
  EXPECT_EQ(error->code(), 2);
  EXPECT_EQ(held->view(), "restmore");
}

TEST(ZPIChannelAbilitiesTest, ASerialPortReadsOntoHeldBytes) {
  TransportPeer peer(TransportPeer::Kind::kTerminal);
  const ZPKDataChannelPtr port = createBaseChannelWithTransport(peer.url());
  ASSERT_TRUE(peer.open(port));
  peer.send("more");
  const ZPKMutableDataPtr held = unitOf("rest");
  const auto result = ZPIChannelAbilities::of(port.get())->readOnto(held.get(), 20.0, nullptr);
  EXPECT_EQ(bytesOf(result.value()), "");
  EXPECT_EQ(held->view(), "restmore");
  EXPECT_TRUE(port->close());
}

// A passive channel over an aggregating one over a socket, with or without a caller's channel
// between the last two.
class SocketChain {
 public:
  explicit SocketChain(bool hasCallersChannel) {
    ZPKDataChannelPtr channel = createActiveTCPChannelWithSocket(_pair.takeOurs());
    if (hasCallersChannel) channel = std::make_shared<PassingChannel>(channel);
    _top = createPassiveChannel(createAggregatingTransformerChannel(channel, _aggregator));
  }

  // Sends bytes or not, and reads; everything a caller can see of it.
  std::string step(std::string_view sent, std::string_view terminator, double timeout) {
    if (!sent.empty()) _pair.send(sent);
    _aggregator->setData2Find(dataOf(terminator));
    ZPKErrorPtr error = olderError();
    const ZPKDataPtr data = _top->readWithTimeout(timeout, &error);
    return bytesOf(data).value_or("null") + ", error " +
           (error == nullptr ? "null" : std::to_string(error->code())) + ", held " +
           std::string(_aggregator->buffer()->view()) + (_top->isOpened() ? ", open" : ", closed");
  }
  void closePeer() { _pair.closePeer(); }

 private:
  SocketPair _pair;
  const ZPKMutableDataAggregatorTransformerPtr _aggregator =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(";"));
  ZPKDataChannelPtr _top;
};

TEST(ZPIChannelAbilitiesTest, AReadOntoHeldBytesReturnsTheSame) {
  SocketChain plain(true);
  SocketChain able(false);
  std::mt19937 random(17);
  std::string terminator = ";";
  for (int call = 0; call < 5'000; ++call) {
    const std::string sent = randomText(random, "abc;", random() % 10 == 0 ? 2'000 : 8);
    if (random() % 10 == 0) terminator = randomText(random, "ab;", 2);
    const double timeout = random() % 10 == 0 ? -10.0 : ZEPHAL_COMMUNICATION_TIME_NOW;
    ASSERT_EQ(able.step(sent, terminator, timeout), plain.step(sent, terminator, timeout))
        << "call " << call;
  }
  able.closePeer();
  plain.closePeer();
  for (int call = 0; call < 3; ++call) {
    EXPECT_EQ(able.step("", "never", 20.0), plain.step("", "never", 20.0));
  }
}

}  // namespace
