#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataChannelManager.h"
#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/Managers.h"
#include "Support/RecordingDelegate.h"
#include "Support/ScriptedChannel.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Manager = ZPKDataChannelManager;

void expectCode9(const ZPKErrorPtr& error, const LogCapture& log, const char* description) {
  expectFailure(error, log,
                {"zephal-communication", 9, description,
                 "+[ZPKDataChannelManager "
                 "managerWithDataChannel:delegate:option:error:deserializer:]",
                 "ZPKDataChannelManager.cpp"});
}

TEST(ZPKDataChannelManagerTest, ANullChannelIsRefusedWithCode9) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(Manager::managerWithDataChannel(nullptr, RecordingDelegate::make(), false, &error,
                                            ZPKDataDefaultSerializer::init()),
            nullptr);
  expectCode9(error, log, "dataChannel cannot be nil");
}

TEST(ZPKDataChannelManagerTest, ANullDelegateIsRefusedWithCode9) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(Manager::managerWithDataChannel(ScriptedChannel::make(), nullptr, false, &error,
                                            ZPKDataDefaultSerializer::init()),
            nullptr);
  expectCode9(error, log, "Delegate cannot be nil");
}

TEST(ZPKDataChannelManagerTest, OfTwoNullArgumentsTheChannelIsReported) {
  const LogCapture log;
  ZPKErrorPtr error;
  EXPECT_EQ(Manager::managerWithDataChannel(nullptr, nullptr, true, &error, nullptr), nullptr);
  expectCode9(error, log, "dataChannel cannot be nil");
}

TEST(ZPKDataChannelManagerTest, EveryFactoryRejectsNullsAndLogsWithoutASlot) {
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
  const auto serializer = ZPKDataDefaultSerializer::init();
  const LogCapture log;
  EXPECT_EQ(Manager::managerWithDataChannel(nullptr, delegate, true, nullptr, serializer), nullptr);
  EXPECT_EQ(Manager::managerWithDataChannel(nullptr, delegate, true, serializer), nullptr);
  EXPECT_EQ(Manager::managerWithDataChannel(channel, nullptr, serializer), nullptr);
  EXPECT_EQ(Manager::managerWithDataChannel(channel, nullptr), nullptr);
  EXPECT_THAT(log.texts(), ElementsAre("dataChannel cannot be nil", "dataChannel cannot be nil",
                                       "Delegate cannot be nil", "Delegate cannot be nil"));
}

TEST(ZPKDataChannelManagerTest, EachFactorySetsWhatItIsGiven) {
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
  const auto serializer = ZPKDataDefaultSerializer::init();
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  const auto full = Manager::managerWithDataChannel(channel, delegate, true, &error, serializer);
  const auto withoutSlot = Manager::managerWithDataChannel(channel, delegate, true, serializer);
  const auto withoutOption = Manager::managerWithDataChannel(channel, delegate, serializer);
  for (const auto& manager : {full, withoutSlot, withoutOption}) {
    EXPECT_EQ(manager->dataChannel(), channel);
    EXPECT_EQ(manager->delegate(), delegate);
    EXPECT_EQ(manager->deserializer(), serializer);
    EXPECT_FALSE(manager->started());
  }
  EXPECT_TRUE(full->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_TRUE(withoutSlot->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_FALSE(withoutOption->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(channel->calls().empty());
}

TEST(ZPKDataChannelManagerTest, TheShortestFactoryGivesADefaultSerializer) {
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
  const auto manager = Manager::managerWithDataChannel(channel, delegate);
  EXPECT_EQ(manager->dataChannel(), channel);
  EXPECT_EQ(manager->delegate(), delegate);
  EXPECT_FALSE(manager->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_NE(std::dynamic_pointer_cast<ZPKDataDefaultSerializer>(manager->deserializer()), nullptr);
}

TEST(ZPKDataChannelManagerTest, InitCreatesAnIdleManagerWithoutChannelAndDelegate) {
  const auto manager = Manager::init();
  EXPECT_EQ(manager->dataChannel(), nullptr);
  EXPECT_EQ(manager->delegate(), nullptr);
  EXPECT_FALSE(manager->started());
  EXPECT_FALSE(manager->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_TRUE(manager->managed_dataChannels().empty());
  EXPECT_NE(std::dynamic_pointer_cast<ZPKDataDefaultSerializer>(manager->deserializer()), nullptr);
}

TEST(ZPKDataChannelManagerTest, PropertiesCanBeReplaced) {
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
  const auto manager = Manager::init();
  manager->setDataChannel(channel);
  manager->setDelegate(delegate);
  manager->setZPKdataChannelManagerReceiveUndetached(true);
  manager->setDeserializer(nullptr);
  manager->setManaged_dataChannels({channel, nullptr});
  EXPECT_EQ(manager->dataChannel(), channel);
  EXPECT_EQ(manager->delegate(), delegate);
  EXPECT_TRUE(manager->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_EQ(manager->deserializer(), nullptr);
  EXPECT_THAT(manager->managed_dataChannels(), ElementsAre(channel, nullptr));
  manager->setDelegate(nullptr);
  EXPECT_EQ(manager->delegate(), nullptr);
}

TEST(ZPKDataChannelManagerTest, AManagerMarkedAsStartedDoesNotListen) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto manager = makeManager(channel, RecordingDelegate::make());
  manager->setStarted(true);
  EXPECT_TRUE(manager->started());
  EXPECT_FALSE(manager->listen());
  EXPECT_TRUE(channel->calls().empty());
  manager->setStarted(false);
  EXPECT_TRUE(manager->listen());
}

TEST(ZPKDataChannelManagerTest, TheDelegateIsHeldWeakly) {
  auto delegate = RecordingDelegate::make();
  const auto manager = makeManager(ScriptedChannel::make(), delegate);
  EXPECT_EQ(delegate.use_count(), 1);
  delegate.reset();
  EXPECT_EQ(manager->delegate(), nullptr);
}

TEST(ZPKDataChannelManagerTest, TheDescriptionHasTheClassAndTheAddress) {
  const auto manager = Manager::init();
  std::array<char, 64> expected{};
  std::snprintf(expected.data(), expected.size(), "<ZPKDataChannelManager %p>",
                static_cast<const void*>(manager.get()));
  EXPECT_EQ(manager->description(), expected.data());
  EXPECT_EQ(manager->debugDescription(), expected.data());
}

// --- disconnect.

TEST(ZPKDataChannelManagerTest, DisconnectBeforeListenOnlyClosesTheChannel) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
  const auto manager = makeManager(channel, delegate);
  manager->disconnect();
  EXPECT_FALSE(channel->isOpened());
  EXPECT_THAT(channel->calls(), ElementsAre("close"));
  EXPECT_TRUE(delegate->events().empty());
  EXPECT_FALSE(manager->started());
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZPKDataChannelManagerTest, DisconnectIgnoresACloseThatFails) {
  const auto channel = ScriptedChannel::make();
  channel->setCloseResult(false, olderError());
  const auto manager = makeManager(channel, RecordingDelegate::make());
  manager->disconnect();
  manager->disconnect();
  EXPECT_THAT(channel->calls(), ElementsAre("close", "close"));
}

TEST(ZPKDataChannelManagerTest, DisconnectWithoutAChannelDoesNothing) {
  const auto manager = Manager::init();
  manager->disconnect();
  EXPECT_FALSE(manager->started());
}

TEST(ZPKDataChannelManagerTest, DisconnectLeavesStartedToTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  const auto delegate = RecordingDelegate::make();
  const auto manager = makeManager(channel, delegate);
  bool startedAfterwards = false;
  delegate->onMessage = [&] {
    manager->disconnect();
    startedAfterwards = manager->started();
  };
  manager->listen();
  EXPECT_TRUE(startedAfterwards);
  EXPECT_FALSE(manager->started());
}

// --- A serializer and classes of a caller's own.

class Temperature final : public ZPKObject {
 public:
  explicit Temperature(double degrees) : _degrees(degrees) {}
  double degrees() const { return _degrees; }

 private:
  const double _degrees;
};

class TemperatureSerializer final : public ZPKDataSerializer {
 public:
  ZPKDataPtr serialize(const ZPKObjectPtr& object) override {
    const auto temperature = ZPKObjectCast<Temperature>(object);
    if (temperature == nullptr) return nullptr;
    return ZPKData::dataWithString(std::to_string(temperature->degrees()));
  }
  ZPKObjectPtr deserialize(const ZPKDataPtr& data) override {
    if (data == nullptr || data->length() == 0) return nullptr;
    return std::make_shared<const Temperature>(std::stod(data->string().value()));
  }
  std::string formatName() const override { return "temperature"; }
  static ZPKClassSet supportedClasses() { return {typeid(Temperature)}; }
};

static_assert(ZPKDataSerializerClass<TemperatureSerializer>);

class Thermometer final : public ZPKDataChannelManagerDelegate {
 public:
  void didReceiveMessage(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                         const ZPKObjectPtr& message) override {
    degrees.push_back(ZPKObjectCast<Temperature>(message)->degrees());
  }
  std::vector<double> degrees;
};

TEST(ZPKDataChannelManagerTest, ACallersSerializerCarriesTheCallersClasses) {
  const auto serializer = std::make_shared<TemperatureSerializer>();
  const auto channel = ScriptedChannel::make();
  channel->addRead(serializer->serialize(std::make_shared<const Temperature>(36.5)));
  channel->addRead("-4");
  const auto thermometer = std::make_shared<Thermometer>();
  const auto manager =
      Manager::managerWithDataChannel(channel, thermometer, kUndetached, serializer);
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(thermometer->degrees, ElementsAre(36.5, -4.0));
}

}  // namespace
