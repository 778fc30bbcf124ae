// A stack on the chain that it builds, in which the layers use each other's abilities, and one with
// a caller's own channel between any two layers, which hides them: nobody can tell them apart.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/Bytes.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/LogCapture.h"
#include "Support/LogFile.h"
#include "Support/PassingChannel.h"
#include "Support/TemporaryFolder.h"
#include "Support/WaitingChannel.h"

using namespace support;

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

// A caller's own base channel, which records each call, its questions whether it is open included.
class Witness final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override {
    calls.emplace_back("open");
    return isOpen = true;
  }
  bool close(ZPKErrorPtr*) override {
    calls.emplace_back("close");
    return std::exchange(isOpen, false);
  }
  bool reset(ZPKErrorPtr*) override {
    calls.emplace_back("reset");
    return true;
  }
  bool isOpened() const override {
    calls.emplace_back("isOpened");
    return isOpen && --questionsUntilClosed != 0;
  }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override {
    calls.push_back("read " + std::to_string(timeout));
    if (toFailWith != nullptr) {
      isOpen = false;
      if (error != nullptr) *error = std::exchange(toFailWith, nullptr);
      return nullptr;
    }
    return std::exchange(toRead, ZPKData::data());
  }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr*) override {
    calls.push_back("write " + bytesOf(data).value_or("null"));
    return true;
  }

  mutable std::vector<std::string> calls;
  mutable int questionsUntilClosed = 0;  // for how many more it says that it is open; 0: forever
  bool isOpen = true;
  ZPKDataPtr toRead = ZPKData::data();
  ZPKErrorPtr toFailWith;
};

struct Layers {
  bool areLogged = false;
  bool areFiltered = false;
};

// An open stack on a chain of the same layers as ZPKCommStack builds.
class Chain {
 public:
  Chain(const Layers& layers, bool isInterrupted, ZPKDataChannelPtr base)
      : _isInterrupted(isInterrupted) {
    ZPKDataChannelPtr channel = std::move(base);
    if (layers.areLogged) {
      channel = above(createLoggingChannel(channel, folder.pathOf("pre-"), "pre-", true));
    }
    channel = above(createAggregatingTransformerChannel(channel, stack->aggregator()));
    channel = above(createPassiveChannel(channel));
    ZPKDataTransformerArray filters{stack->ecidChecker()};
    if (layers.areFiltered) filters.push_back(createFilteringTransformer(dataOf("bb")));
    channel = above(createChannelTransformer(channel, filters, {stack->appender()}));
    if (layers.areLogged) {
      channel = above(createLoggingChannel(channel, folder.pathOf("post"), "post", true));
    }
    stack->setDelimiter(";");
    stack->ecidChecker()->setExpectedECID(0x0000BEEF0BADF00D);
    stack->setCommChannel(channel);
  }

  const TemporaryFolder folder;
  const ZPKCommStackPtr stack = ZPKCommStack::init();

 private:
  ZPKDataChannelPtr above(ZPKDataChannelPtr channel) const {
    if (!_isInterrupted) return channel;
    return std::make_shared<PassingChannel>(std::move(channel));
  }

  const bool _isInterrupted;
};

struct WitnessedChain : Chain {
  WitnessedChain(const Layers& layers, bool isInterrupted,
                 const std::shared_ptr<Witness>& witness = std::make_shared<Witness>())
      : Chain(layers, isInterrupted, witness), base(witness) {
    base->isOpen = false;
    stack->openWithTimeout(1);
  }

  const std::shared_ptr<Witness> base;
};

std::string errorText(const ZPKErrorPtr& error) {
  return error == nullptr ? "null" : error->domain() + std::to_string(error->code());
}

// One step of a script for both chains.
class Step {
 public:
  explicit Step(std::mt19937& random)
      : _event(random() % 16),
        _call(random() % 8),
        _chunk(randomText(random, "abc;\r\n", random() % 10 == 0 ? 100 : 12)),
        _delimiter(randomText(random, "ab;", 2)) {
    const double kTimeouts[] = {ZEPHAL_COMMUNICATION_TIME_NOW, -0.5, -10.0};
    _timeout = kTimeouts[random() % 3];
    if (random() % 20 == 0) _chunk += "[0000BEEF:0BADF00D] :-) ;";
    if (random() % 40 == 0) _chunk += "[0000DEAD:0BADF00D] :-) ;";
  }

  // Everything that a caller can see of the step.
  std::string playOn(WitnessedChain& chain) const {
    prepare(chain);
    ZPKErrorPtr error = olderError();
    const std::string result = call(*chain.stack, &error);
    chain.base->questionsUntilClosed = 0;
    return result + ", error " + errorText(error) + ", swap " +
           chain.stack->ecidSwapInformation().value_or("none") + ", held " +
           std::string(chain.stack->aggregator()->buffer()->view()) + ", delimiter " +
           bytesOf(chain.stack->aggregator()->data2Find()).value_or("null");
  }

 private:
  void prepare(WitnessedChain& chain) const {
    Witness& base = *chain.base;
    chain.stack->setEcidSwapInformation(std::nullopt);
    if (_event == 0) base.toFailWith = errorWithCode(5);
    if (_event == 1) base.isOpen = false;
    if (_event == 2 || _event == 3) base.questionsUntilClosed = static_cast<int>(_event);
    if (_event == 4) chain.stack->setDelimiter(_delimiter);
    if (_event == 5) base.toRead = nullptr;
    if (_event > 8) base.toRead = dataOf(_chunk);
    if (_event == 15) chain.stack->openWithTimeout(1);
  }

  std::string call(ZPKCommStack& stack, ZPKErrorPtr* error) const {
    if (_call == 0) return stack.writeString(_chunk, error) ? "written" : "not written";
    if (_call == 1) return stack.sendCommandString(_chunk, _timeout, error).value_or("null");
    if (_call == 2) {
      return bytesOf(stack.readDataWithTimeout(_timeout, dataOf(_delimiter), error))
          .value_or("null");
    }
    if (_call == 3 && _event == 6) return stack.close(error) ? "closed" : "not closed";
    return bytesOf(stack.readDataWithTimeout(_timeout, nullptr, error)).value_or("null");
  }

  unsigned long _event;
  unsigned long _call;
  std::string _chunk;
  std::string _delimiter;
  double _timeout = 0.0;
};

class ZPKCommStackChainTest : public testing::Test {
 protected:
  const LogCapture _log;
};

class ZPKCommStackLayersChainTest : public testing::TestWithParam<Layers> {
 protected:
  const LogCapture _log;
};

TEST_P(ZPKCommStackLayersChainTest, ACallersChannelBetweenTheLayersChangesNothing) {
  WitnessedChain plain(GetParam(), true);
  WitnessedChain able(GetParam(), false);
  std::mt19937 random(23);
  for (int call = 0; call < 4'000; ++call) {
    const Step step(random);
    able.base->calls.clear();
    plain.base->calls.clear();
    ASSERT_EQ(step.playOn(able), step.playOn(plain)) << "call " << call;
    ASSERT_EQ(able.base->calls, plain.base->calls) << "call " << call;
    for (const WitnessedChain* chain : {&able, &plain}) {
      ASSERT_TRUE(chain->base->isOpen || chain->stack->openWithTimeout(1));
    }
  }
  if (!GetParam().areLogged) return;
  for (const char* log : {"pre-", "post"}) {
    const std::vector<std::string> texts = textsOfLog(plain.folder.pathOf(log));
    EXPECT_THAT(texts, Not(IsEmpty()));
    EXPECT_THAT(textsOfLog(able.folder.pathOf(log)), ElementsAreArray(texts));
  }
}

INSTANTIATE_TEST_SUITE_P(Layers, ZPKCommStackLayersChainTest,
                         testing::Values(Layers{}, Layers{false, true}, Layers{true, false},
                                         Layers{true, true}));

// With a background reader, chunks join as its thread is scheduled, but the units stay the same.
TEST_F(ZPKCommStackChainTest, UnitsFromABackgroundReaderAreTheSameBothWays) {
  std::mt19937 random(29);
  const std::string text = randomText(random, "abc;", 4'000) + ";";
  std::vector<std::string> units;
  for (size_t at = 0; at < text.size(); at += units.back().size()) {
    units.push_back(text.substr(at, text.find(';', at) + 1 - at));
  }
  for (const bool isInterrupted : {false, true}) {
    const auto base = WaitingChannel::make();
    const Chain chain({true, false}, isInterrupted, createActiveChannel(base));
    ASSERT_TRUE(chain.stack->openWithTimeout(1));
    for (const std::string& chunk : randomSplit(random, text)) base->deliver(chunk);
    std::vector<std::string> seen;
    for (size_t i = 0; i < units.size(); ++i) {
      seen.push_back(chain.stack->readStringWithTimeout(600, std::nullopt).value_or("null"));
    }
    EXPECT_EQ(seen, units);
    EXPECT_TRUE(chain.stack->close());
    EXPECT_EQ(joinedTextOfLog(chain.folder.pathOf("post"), "post--read"), text);
  }
}

}  // namespace
