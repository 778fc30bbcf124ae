#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Channel/ZPKDataChannel.h"
#include "Support/SimulatedDevice.h"

using namespace support;

namespace {

using Kind = SimulatedDevice::Kind;

class SimulatedDeviceTest : public testing::TestWithParam<Kind> {
 protected:
  static ZPKDataChannelPtr connectTo(const SimulatedDevice& device) {
    auto channel = createBaseChannelWithTransport(device.url());
    EXPECT_TRUE(channel->openWithTimeout(1.0));
    return channel;
  }

  // Reads until `wanted` has arrived, or no more data arrives.
  static std::string readUntil(const ZPKDataChannelPtr& channel, const std::string& wanted) {
    std::string text;
    while (text.find(wanted) == std::string::npos) {
      const ZPKDataPtr data = channel->readWithTimeout(30.0);
      if (data == nullptr || data->length() == 0) break;
      text += data->view();
    }
    return text;
  }
};

TEST_P(SimulatedDeviceTest, AnswersACommandWithEchoResponseAndPrompt) {
  SimulatedDevice device(GetParam(), {.echoes = true, .responses = {{"version", "1.0\n"}}});
  const auto channel = connectTo(device);
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("version\n")));
  EXPECT_EQ(readUntil(channel, "=> "), "version\n1.0\n=> ");
  EXPECT_THAT(device.commands(), testing::ElementsAre("version"));
  EXPECT_EQ(device.received(), "version\n");
  channel->close();
}

TEST_P(SimulatedDeviceTest, TricklesAndSplitsWithoutLoss) {
  for (const bool trickles : {true, false}) {
    SimulatedDevice device(GetParam(),
                           {.respond = [](const std::string& command) { return command + "!"; },
                            .trickles = trickles,
                            .splitsPromptAfter = 1});
    const auto channel = connectTo(device);
    EXPECT_TRUE(channel->write(ZPKData::dataWithString("a\nb\n")));
    EXPECT_EQ(readUntil(channel, "b!=> "), "a!=> b!=> ");
    channel->close();
  }
}

TEST_P(SimulatedDeviceTest, HangsUpInTheMiddleOfAnAnswer) {
  SimulatedDevice device(GetParam(), {.responses = {{"version", "1.0\n"}}, .hangsUpAfter = 2});
  const auto channel = connectTo(device);
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("version\n")));
  std::string text;
  for (ZPKDataPtr data; (data = channel->readWithTimeout(30.0)) != nullptr;) text += data->view();
  // A terminal drops unread bytes when its other end is closed.
  EXPECT_TRUE(text == "1." || (GetParam() == Kind::kTerminal && text.empty())) << text;
  EXPECT_FALSE(channel->isOpened());
}

TEST_P(SimulatedDeviceTest, SendsUnsolicitedBytes) {
  SimulatedDevice device(GetParam());
  const auto channel = connectTo(device);
  device.send("boot ");
  device.send("done\n");
  EXPECT_TRUE(device.waitUntilAllIsSent());
  EXPECT_EQ(readUntil(channel, "\n"), "boot done\n");
  channel->close();
}

TEST_P(SimulatedDeviceTest, ReadsCommandsInSilence) {
  SimulatedDevice device(GetParam(), {.isSilent = true});
  const auto channel = connectTo(device);
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("version\n")));
  EXPECT_TRUE(device.waitForCommands(1));
  EXPECT_TRUE(device.hasSentAll());
  EXPECT_EQ(channel->readWithTimeout(0.0)->length(), 0U);
  channel->close();
}

TEST_P(SimulatedDeviceTest, FloodsAndStillEndsImmediately) {
  SimulatedDevice device(GetParam(), {.floods = true});
  const auto channel = connectTo(device);
  for (int round = 0; round < 10; ++round) {
    EXPECT_NE(channel->readWithTimeout(30.0)->length(), 0U);
  }
  channel->close();
}

TEST_P(SimulatedDeviceTest, AcceptsTheNextConnectionAfterAHangUp) {
  SimulatedDevice device(GetParam());
  if (GetParam() == Kind::kTerminal) {
    device.hangUp();
    device.hangUp();
    EXPECT_FALSE(createBaseChannelWithTransport(device.url())->openWithTimeout(1.0));
    return;
  }
  const auto first = connectTo(device);
  device.hangUp();
  EXPECT_EQ(first->readWithTimeout(30.0), nullptr);
  const auto second = connectTo(device);
  EXPECT_TRUE(device.waitForConnections(2));
  device.stopListening();
  second->close();
  EXPECT_FALSE(createBaseChannelWithTransport(device.url())->openWithTimeout(1.0));
}

INSTANTIATE_TEST_SUITE_P(Kinds, SimulatedDeviceTest,
                         testing::Values(Kind::kTerminal, Kind::kTCP, Kind::kUnix),
                         [](const auto& kind) {
                           return kind.param == Kind::kTerminal ? "Terminal"
                                  : kind.param == Kind::kTCP    ? "TCP"
                                                                : "Unix";
                         });

}  // namespace
