#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Stack/ZPKCommStack.h"
#include "Support/SimulatedDevice.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"

using namespace support;
using namespace std::chrono_literals;

namespace {

using Answer = SimulatedDevice::Answer;
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
  EXPECT_EQ(text, "1.");
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

TEST_P(SimulatedDeviceTest, RebootsAtTheSameURL) {
  SimulatedDevice device(GetParam(), {.bootText = "booting\n"});
  const std::string url = device.url();
  for (int round = 0; round < 3; ++round) {
    const auto channel = connectTo(device);
    EXPECT_EQ(readUntil(channel, "=> "), "booting\n=> ");
    device.reboot();
    EXPECT_EQ(channel->readWithTimeout(30.0), nullptr);
    EXPECT_TRUE(device.waitUntilOn());
    EXPECT_EQ(device.url(), url);
  }
}

TEST_P(SimulatedDeviceTest, IsGoneUntilItIsSwitchedOn) {
  SimulatedDevice device(GetParam(), {.responses = {{"version", "1.0\n"}}});
  device.send("lost");
  device.powerOff();
  EXPECT_FALSE(device.isOn());
  EXPECT_TRUE(device.hasSentAll());
  EXPECT_FALSE(device.waitUntilOn(1ms));
  EXPECT_FALSE(createBaseChannelWithTransport(device.url())->openWithTimeout(1.0));
  device.powerOn();
  EXPECT_TRUE(device.isOn());
  device.powerOn();
  const auto channel = connectTo(device);
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("version\n")));
  EXPECT_EQ(readUntil(channel, "=> "), "1.0\n=> ");
  channel->close();
}

TEST_P(SimulatedDeviceTest, StaysAwayForTheGivenTime) {
  SimulatedDevice device(GetParam());
  const auto start = std::chrono::steady_clock::now();
  device.reboot(100ms);
  EXPECT_TRUE(device.waitUntilOn());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
}

TEST_P(SimulatedDeviceTest, RebootsOnCommand) {
  SimulatedDevice device(
      GetParam(), {.bootText = "booting\n", .responses = {{"reboot", Answer::reboot("bye\n")}}});
  const auto channel = connectTo(device);
  EXPECT_EQ(readUntil(channel, "=> "), "booting\n=> ");
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("reboot\n")));
  EXPECT_EQ(readUntil(channel, "bye\n"), "bye\n");
  EXPECT_EQ(channel->readWithTimeout(30.0), nullptr);
  EXPECT_TRUE(device.waitUntilOn());
  const auto again = connectTo(device);
  EXPECT_EQ(readUntil(again, "=> "), "booting\n=> ");
  again->close();
}

TEST_P(SimulatedDeviceTest, AFunctionMayCallTheDevice) {
  SimulatedDevice device(GetParam());
  device.setBehaviour({.respond = [&device](const std::string& command) {
    device.send("heard ");
    return command + ", number " + std::to_string(device.commands().size());
  }});
  const auto channel = connectTo(device);
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("you\n")));
  EXPECT_EQ(readUntil(channel, "=> "), "heard you, number 0=> ");
  EXPECT_THAT(device.unknownCommands(), testing::IsEmpty());
  channel->close();
}

INSTANTIATE_TEST_SUITE_P(Kinds, SimulatedDeviceTest,
                         testing::Values(Kind::kTerminal, Kind::kTCP, Kind::kUnix),
                         [](const auto& kind) {
                           return kind.param == Kind::kTerminal ? "Terminal"
                                  : kind.param == Kind::kTCP    ? "TCP"
                                                                : "Unix";
                         });

// Talks to a device with a raw log, and plays that log in the device's place.
TEST(SimulatedDeviceRecordingTest, PlaysTheRawLogOfAStack) {
  const support::TemporaryFolder folder;
  const auto talkTo = [&](const SimulatedDevice& device, const char* log) {
    std::string text;
    const auto stack = ZPKCommStack::init();
    stack->setDelimiter("=> ", nullptr);
    stack->setLogFilePath(std::nullopt, folder.pathOf(log), nullptr);
    EXPECT_TRUE(stack->createStackWithURL(device.url()));
    EXPECT_TRUE(stack->openWithTimeout(std::nullopt, nullptr));
    for (const char* command : {"version", "help", "version"}) {
      text += stack->sendCommandString(command, 30.0, nullptr).value_or("no answer");
    }
    stack->close();
    return text;
  };
  int count = 0;
  SimulatedDevice real(Kind::kTCP, {.responses = {{"help", "one\n\n  two\n"}},
                                    .respond = [&count](const std::string& /*command*/) {
                                      return "1." + std::to_string(++count) + "\n";
                                    }});
  const std::string expected = talkTo(real, "real.log");
  EXPECT_EQ(expected, "1.1\n=> one\n\n  two\n=> 1.2\n=> ");
  for (const Kind kind : {Kind::kTerminal, Kind::kTCP, Kind::kUnix}) {
    SimulatedDevice played(kind, zephal::DeviceRecording::fromRawLog(folder.pathOf("real.log")));
    EXPECT_EQ(talkTo(played, "played.log"), expected);
    EXPECT_THAT(played.unknownCommands(), testing::IsEmpty());
  }
}

TEST(SimulatedDeviceRecordTest, ForgetsWhatItReceived) {
  SimulatedDevice device(Kind::kUnix);
  const auto channel = createBaseChannelWithTransport(device.url());
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("first\n")));
  EXPECT_TRUE(device.waitForCommands(1));
  device.forgetReceived();
  EXPECT_EQ(device.received(), "");
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("second\n")));
  EXPECT_TRUE(device.waitForCommands(1));
  EXPECT_THAT(device.commands(), testing::ElementsAre("second"));
  EXPECT_THAT(device.unknownCommands(), testing::ElementsAre("second"));
}

TEST(SimulatedDeviceFailureTest, SaysWhyItCannotComeBack) {
  SimulatedDevice device(Kind::kUnix);
  device.powerOff();
  std::filesystem::create_directory(device.path());
  EXPECT_THROW(device.powerOn(), std::system_error);
  EXPECT_FALSE(device.isOn());
  std::filesystem::remove(device.path());
  device.powerOn();
  EXPECT_TRUE(device.isOn());
}

TEST(SimulatedDeviceFailureTest, RefusesATerminatorThatNeverEndsACommand) {
  EXPECT_THROW(SimulatedDevice(Kind::kTCP, {.terminator = ""}), std::invalid_argument);
  EXPECT_THROW(SimulatedDevice(Kind::kTCP, {.terminator = "\r", .translatesLineEnds = true}),
               std::invalid_argument);
  SimulatedDevice device(Kind::kTCP);
  EXPECT_THROW(device.setBehaviour({.terminator = ""}), std::invalid_argument);
}

TEST(SimulatedDeviceThreadTest, TheThreadStartsWithTheGivenFunction) {
  std::atomic<int> starts{0};
  SimulatedDevice::setThreadStart([&starts] {
    SystemCalls::exemptThisThread();
    ++starts;
  });
  SimulatedDevice device(Kind::kTCP);
  SimulatedDevice::setThreadStart(SystemCalls::exemptThisThread);
  const auto channel = createBaseChannelWithTransport(device.url());
  EXPECT_TRUE(channel->openWithTimeout(1.0));
  EXPECT_TRUE(device.waitForConnections(1));
  EXPECT_EQ(starts, 1);
}

}  // namespace
