// The part of the channel contract that every decorator keeps, over a scripted channel and over a
// connection to a device. In its plain form no decorator changes the data.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/Errors.h"
#include "Support/EventWait.h"
#include "Support/ScriptedChannel.h"
#include "Support/SimulatedDevice.h"

using namespace support;

namespace {

using testing::ElementsAre;

ZPKMutableDataAggregatorTransformerPtr passingAggregator() {
  return ZPKMutableDataAggregatorTransformer::initWithTerminator(nullptr);
}

struct Decorator {
  const char* name;
  std::function<ZPKDataChannelPtr(const ZPKDataChannelPtr& below)> wrap;
};

void PrintTo(const Decorator& decorator, std::ostream* stream) { *stream << decorator.name; }

const Decorator kDecorators[] = {
    {"Transformer",
     [](const ZPKDataChannelPtr& below) { return createChannelTransformer(below, {}, {}); }},
    {"TransformerWithPreCall",
     [](const ZPKDataChannelPtr& below) {
       return createChannelTransformerWithPreCall(below, {}, {});
     }},
    {"Passive", [](const ZPKDataChannelPtr& below) { return createPassiveChannel(below); }},
    {"EchoRemoval",
     [](const ZPKDataChannelPtr& below) {
       return createEchoRemovalChannel(below, dataOf("no such line"));
     }},
    {"Logging",
     [](const ZPKDataChannelPtr& below) {
       return createLoggingChannel(below, "/dev/null", "id", false);
     }},
    {"SynchronousLogging",
     [](const ZPKDataChannelPtr& below) {
       return createLoggingChannel(below, "/dev/null", "id", true);
     }},
    {"Delay",
     [](const ZPKDataChannelPtr& below) { return createInterCharacterDelayChannel(below, 0); }},
    {"Aggregating",
     [](const ZPKDataChannelPtr& below) {
       return createAggregatingTransformerChannel(below, passingAggregator());
     }},
    {"AllOfThem",
     [](const ZPKDataChannelPtr& below) {
       ZPKDataChannelPtr top = createInterCharacterDelayChannel(below, 0);
       top = createLoggingChannel(top, "/dev/null", "pre-", false);
       top = createEchoRemovalChannel(top, dataOf("no such line"));
       top = createAggregatingTransformerChannel(top, passingAggregator());
       top = createPassiveChannel(top);
       top = createLoggingChannel(top, "/dev/null", "post", false);
       return createChannelTransformerWithPreCall(top, {}, {});
     }},
};

std::string nameOf(const testing::TestParamInfo<Decorator>& decorator) {
  return decorator.param.name;
}

// --- Over a scripted channel.

class DecoratorContractTest : public testing::TestWithParam<Decorator> {
 protected:
  const std::shared_ptr<ScriptedChannel> below = ScriptedChannel::make();
  const ZPKDataChannelPtr channel = GetParam().wrap(below);
};

TEST_P(DecoratorContractTest, OpenIsPassedDownWithItsTimeout) {
  below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->openWithTimeout(2.5, &error));
  EXPECT_TRUE(channel->openWithTimeout(-7.0, nullptr));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->openTimeouts(), ElementsAre(2.5, -7.0));
  EXPECT_THAT(below->calls(), ElementsAre("open", "open"));
}

TEST_P(DecoratorContractTest, AFailedOpenIsPassedUpAndUndoesNothing) {
  LogCapture log;
  below->setOpened(false);
  below->setOpenResult(false, errorWithCode(4));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error->code(), 4);
  EXPECT_FALSE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(below->calls(), ElementsAre("open", "open"));
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(DecoratorContractTest, CloseIsPassedDownAndItsFailureUp) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->close(&error));
  EXPECT_EQ(error, olderError());
  below->setCloseResult(false, errorWithCode(2));
  EXPECT_FALSE(channel->close(&error));
  EXPECT_EQ(error->code(), 2);
  EXPECT_FALSE(channel->close(nullptr));
  EXPECT_THAT(below->calls(), ElementsAre("close", "close", "close"));
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(DecoratorContractTest, ResetIsPassedDownAndItsFailureUp) {
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->reset(&error));
  EXPECT_EQ(error, olderError());
  below->setResetResult(false, errorWithCode(1));
  EXPECT_FALSE(channel->reset(&error));
  EXPECT_EQ(error->code(), 1);
  EXPECT_FALSE(channel->reset(nullptr));
  EXPECT_THAT(below->calls(), ElementsAre("reset", "reset", "reset"));
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(DecoratorContractTest, IsOpenedIsTheAnswerOfTheChannelBelow) {
  EXPECT_TRUE(channel->isOpened());
  below->setOpened(false);
  EXPECT_FALSE(channel->isOpened());
  EXPECT_THAT(below->calls(), ElementsAre());
}

TEST_P(DecoratorContractTest, BytesArePassedUpAndTheSlotIsUntouched) {
  const std::string bytes("a\0%s%n%@\xFF", 9);
  below->addRead(bytes);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1000.0, &error)->view(), bytes);
  EXPECT_EQ(error, olderError());
}

TEST_P(DecoratorContractTest, NowOnAnIdleChannelReadsOnceAndIsEmpty) {
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(below->readTimeouts(), ElementsAre(0.0));
}

TEST_P(DecoratorContractTest, ForeverIsPassedDownUnchanged) {
  below->addRead("a");
  channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr);
  EXPECT_THAT(below->readTimeouts(), ElementsAre(-1.0));
}

TEST_P(DecoratorContractTest, AFailedReadIsPassedUpOnce) {
  LogCapture log;
  below->addFailedRead(errorWithCode(5), false);
  below->addFailedRead(errorWithCode(5), false);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr), nullptr);
  EXPECT_EQ(below->readTimeouts().size(), 2U);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(DecoratorContractTest, ACleanCloseDuringAReadIsNullWithoutError) {
  below->addFailedRead(nullptr);
  ZPKErrorPtr error;
  EXPECT_EQ(channel->readWithTimeout(1.0, &error), nullptr);
  EXPECT_EQ(error, nullptr);
}

TEST_P(DecoratorContractTest, AWriteIsPassedDownAndTheCallersDataStay) {
  const ZPKMutableDataPtr data = chunkOf(std::string("a%n\0b", 5));
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->write(data, &error));
  EXPECT_EQ(error, olderError());
  std::string written;
  for (const auto& write : below->writes()) written += write.value();
  EXPECT_EQ(written, data->view());
}

TEST_P(DecoratorContractTest, AFailedWriteIsPassedUpOnce) {
  LogCapture log;
  below->setWriteResult(false, errorWithCode(5));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->write(dataOf("abc"), &error));
  EXPECT_EQ(error->code(), 5);
  EXPECT_FALSE(channel->write(dataOf("abc"), nullptr));
  EXPECT_EQ(below->writes().size(), 2U);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(DecoratorContractTest, AnEmptyWriteIsASuccess) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->write(ZPKData::data(), &error));
  EXPECT_EQ(error, olderError());
}

INSTANTIATE_TEST_SUITE_P(Decorators, DecoratorContractTest, testing::ValuesIn(kDecorators), nameOf);

// --- Over a connection.

class DecoratorOverAConnectionTest : public testing::TestWithParam<Decorator> {
 protected:
  void open() { ASSERT_TRUE(channel->openWithTimeout(5.0, nullptr)); }
  void TearDown() override { EXPECT_TRUE(!channel->isOpened() || channel->close(nullptr)); }

  // Reads until `text` has arrived.
  bool readUntil(const std::string& text) {
    std::string all;
    return waitFor([&] {
      const ZPKDataPtr data = channel->readWithTimeout(0.1, nullptr);
      if (data != nullptr) all += data->view();
      return all == text;
    });
  }

  SimulatedDevice device{SimulatedDevice::Kind::kTCP,
                         {.responses = {{"version", "1.0\n"}, {"name", "unit\n"}}}};
  const ZPKDataChannelPtr channel =
      GetParam().wrap(createBaseChannelWithTransport(device.url(), nullptr));
};

TEST_P(DecoratorOverAConnectionTest, TalksToTheDevice) {
  open();
  EXPECT_TRUE(channel->write(dataOf("version\n"), nullptr));
  EXPECT_TRUE(readUntil("1.0\n=> "));
  EXPECT_EQ(device.received(), "version\n");
}

TEST_P(DecoratorOverAConnectionTest, NowOnAnIdleConnectionReturnsEmptyDataWithoutFailure) {
  LogCapture log;
  open();
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(DecoratorOverAConnectionTest, ABadTimeoutIsCode3AndKeepsTheConnection) {
  LogCapture log;
  open();
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(-0.5, &error), nullptr);
  expectFailure(error, log,
                {"zephal-communication", 3, "time out has an invalid value", "readWithTimeout",
                 "DescriptorOperation.h"});
  EXPECT_TRUE(channel->isOpened());
  EXPECT_TRUE(channel->write(dataOf("name\n"), nullptr));
  EXPECT_TRUE(readUntil("unit\n=> "));
}

TEST_P(DecoratorOverAConnectionTest, OpeningAnOpenChannelFailsWithCode1) {
  open();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->openWithTimeout(1.0, &error));
  expectFailure(error, log,
                {"zephal-communication", 1, "Device Already Opened", "openWithTimeout",
                 "DescriptorOperation.h"});
  EXPECT_TRUE(channel->isOpened());
}

TEST_P(DecoratorOverAConnectionTest, ResettingAnOpenChannelFailsHarmlesslyWithCode1) {
  open();
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(channel->reset(&error));
  expectFailure(error, log,
                {"zephal-communication", 1, "Reset not supported while channel is open",
                 "-[ZPIEndpointSocket reset:]", "ZPIEndpointSocket.cpp"});
  EXPECT_TRUE(channel->write(dataOf("name\n"), nullptr));
  EXPECT_TRUE(readUntil("unit\n=> "));
}

TEST_P(DecoratorOverAConnectionTest, ClosingAClosedChannelFailsAndResettingItSucceeds) {
  open();
  EXPECT_TRUE(channel->close(nullptr));
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(channel->reset(&error));
  EXPECT_EQ(error, olderError());
  LogCapture log;
  EXPECT_FALSE(channel->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
}

TEST_P(DecoratorOverAConnectionTest, AFailedReadClosesTheChannel) {
  open();
  ASSERT_TRUE(device.waitForConnections(1));
  device.hangUp();
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(channel->readWithTimeout(30.0, &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 5);
  EXPECT_FALSE(channel->isOpened());
  LogCapture log;
  EXPECT_FALSE(channel->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
}

TEST_P(DecoratorOverAConnectionTest, CanBeOpenedClosedAndResetRepeatedly) {
  for (int round = 0; round < 3; ++round) {
    open();
    EXPECT_TRUE(channel->write(dataOf("version\n"), nullptr));
    EXPECT_TRUE(readUntil("1.0\n=> "));
    EXPECT_TRUE(channel->close(nullptr));
    EXPECT_TRUE(channel->reset(nullptr));
  }
}

INSTANTIATE_TEST_SUITE_P(Decorators, DecoratorOverAConnectionTest, testing::ValuesIn(kDecorators),
                         nameOf);

}  // namespace
