#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Channel/ZPKDataChannelManager.h"
#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/ScriptedChannel.h"
#include "Support/SystemCalls.h"
#include "Support/ThreadCalls.h"
#include "Support/TransportPeer.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKString.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Manager = ZPKDataChannelManager;
using Operation = ZPKDataChannelManagerDelegate::Operation;

constexpr bool kUndetached = true;
constexpr bool kDetached = false;

std::string nameOfThisThread() {
  std::array<char, 64> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

ZPKDataPtr archive(const ZPKValue& value) {
  return ZPKDataDefaultSerializer::init()->serialize(value);
}

std::string textOf(const ZPKDataPtr& data) {
  if (data == nullptr) return "null";
  return data->length() == 0 ? "empty" : "bytes";
}

// Writes down what it is told, and then does what a test asks for.
class Recorder final : public ZPKDataChannelManagerDelegate {
 public:
  static std::shared_ptr<Recorder> make() { return std::make_shared<Recorder>(); }

  bool shouldDeserializeData(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                             const ZPKDataPtr& data) override {
    if (!recordsReads) return true;
    record("should " + textOf(data));
    return onShould ? onShould(data) : true;
  }

  void didReceiveMessage(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                         const ZPKObjectPtr& message) override {
    lastManager = manager.get();
    lastChannel = channel.get();
    record("message " + message->debugDescription());
    if (onMessage) onMessage();
  }

  void didDisconnect(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                     const ZPKErrorPtr& error) override {
    lastManager = manager.get();
    lastChannel = channel.get();
    record(std::string("disconnect ") + (error == nullptr ? "null" : "error") +
           (manager->started() ? " started" : " idle"));
    if (onDisconnect) onDisconnect();
  }

  std::vector<std::string> events() const {
    const std::lock_guard guard(_mutex);
    return _events;
  }

  size_t count(const std::string& event) const {
    const std::vector<std::string> all = events();
    return static_cast<size_t>(std::count(all.begin(), all.end(), event));
  }

  // Set before the loop starts.
  bool recordsReads = false;
  std::function<bool(const ZPKDataPtr&)> onShould;
  std::function<void()> onMessage;
  std::function<void()> onDisconnect;

  std::atomic<const void*> lastManager{nullptr};
  std::atomic<const void*> lastChannel{nullptr};

 private:
  void record(std::string event) {
    const std::lock_guard guard(_mutex);
    _events.push_back(std::move(event));
  }

  mutable std::mutex _mutex;
  std::vector<std::string> _events;
};

// Takes none of the operations.
class Indifferent final : public ZPKDataChannelManagerDelegate {};

ZPKDataChannelManagerPtr makeManager(const ZPKDataChannelPtr& channel,
                                     const ZPKDataChannelManagerDelegatePtr& delegate,
                                     bool option = kUndetached) {
  return Manager::managerWithDataChannel(channel, delegate, option,
                                         ZPKDataDefaultSerializer::init());
}

// Reads nothing until it is let go, and then answers like a channel that was closed.
std::shared_ptr<ScriptedChannel> makeBlockedChannel(const std::shared_future<void>& release) {
  auto channel = ScriptedChannel::make();
  channel->setOnRead([release](double) { release.wait(); });
  return channel;
}

// Lets go of a manager and waits until its loops have done so too.
void letGo(ZPKDataChannelManagerPtr* manager) {
  const std::weak_ptr<Manager> weakManager = *manager;
  manager->reset();
  EXPECT_TRUE(waitFor([&] { return weakManager.expired(); }));
}

// --- Making a manager.

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
  EXPECT_EQ(Manager::managerWithDataChannel(nullptr, Recorder::make(), false, &error,
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

TEST(ZPKDataChannelManagerTest, EveryFactoryRefusesNullsAndLogsWithoutASlot) {
  const auto channel = ScriptedChannel::make();
  const auto delegate = Recorder::make();
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
  const auto delegate = Recorder::make();
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
  const auto delegate = Recorder::make();
  const auto manager = Manager::managerWithDataChannel(channel, delegate);
  EXPECT_EQ(manager->dataChannel(), channel);
  EXPECT_EQ(manager->delegate(), delegate);
  EXPECT_FALSE(manager->ZPKdataChannelManagerReceiveUndetached());
  EXPECT_NE(std::dynamic_pointer_cast<ZPKDataDefaultSerializer>(manager->deserializer()), nullptr);
}

TEST(ZPKDataChannelManagerTest, InitMakesAnIdleManagerWithoutChannelAndDelegate) {
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
  const auto delegate = Recorder::make();
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

TEST(ZPKDataChannelManagerTest, AManagerThatIsSaidToRunDoesNotListen) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto manager = makeManager(channel, Recorder::make());
  manager->setStarted(true);
  EXPECT_TRUE(manager->started());
  EXPECT_FALSE(manager->listen());
  EXPECT_TRUE(channel->calls().empty());
  manager->setStarted(false);
  EXPECT_TRUE(manager->listen());
}

TEST(ZPKDataChannelManagerTest, TheDelegateIsHeldWeakly) {
  auto delegate = Recorder::make();
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

// --- The loop, on the caller's thread.

TEST(ZPKDataChannelManagerTest, EachReadIsDeliveredAsOneObject) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("first"));
  channel->addRead(archive({{"slot", 3}}));
  channel->addFailedRead(nullptr);
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(manager->listen(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(delegate->events(),
              ElementsAre("message first", "message {\"slot\": 3}", "disconnect null idle"));
  EXPECT_EQ(delegate->lastManager, manager.get());
  EXPECT_EQ(delegate->lastChannel, channel.get());
  EXPECT_FALSE(manager->started());
}

TEST(ZPKDataChannelManagerTest, EachReadHas1000Seconds) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  makeManager(channel, Recorder::make())->listen();
  EXPECT_THAT(channel->readTimeouts(), ElementsAre(1000.0, 1000.0));
}

TEST(ZPKDataChannelManagerTest, UndetachedTheDelegatesCallsComeOnTheCallersThread) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  const auto delegate = Recorder::make();
  std::vector<std::thread::id> threads;
  delegate->onMessage = [&threads] { threads.push_back(std::this_thread::get_id()); };
  delegate->onDisconnect = delegate->onMessage;
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(threads, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST(ZPKDataChannelManagerTest, UndetachedTheCallersThreadIsNamedAndStaysSo) {
  const LogCapture log;
  std::string nameInLoop;
  std::string nameAfterwards;
  std::thread([&] {
    const auto delegate = Recorder::make();
    delegate->onDisconnect = [&nameInLoop] { nameInLoop = nameOfThisThread(); };
    makeManager(ScriptedChannel::make(), delegate)->listen();
    nameAfterwards = nameOfThisThread();
  }).join();
  EXPECT_FALSE(nameInLoop.empty());
  EXPECT_TRUE(std::string("zephalbench.ZPKdataChannelManager.recv").starts_with(nameInLoop));
  EXPECT_GE(nameInLoop.size(), 15U);
  EXPECT_EQ(nameAfterwards, nameInLoop);
}

TEST(ZPKDataChannelManagerTest, AFirstReadThatFailsGivesOneDisconnectWithoutItsError) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addFailedRead(olderError());
  const auto delegate = Recorder::make();
  ZPKErrorPtr error;
  EXPECT_TRUE(makeManager(channel, delegate)->listen(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_EQ(log.texts().size(), 1U);
  EXPECT_TRUE(log.texts()[0].starts_with("Error in deserialization CBOR (1): "));
}

TEST(ZPKDataChannelManagerTest, AReadThatTimesOutEndsTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(ZPKData::data());
  channel->addRead(archive("never read"));
  const auto delegate = Recorder::make();
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_TRUE(channel->isOpened());
}

TEST(ZPKDataChannelManagerTest, ADamagedObjectEndsTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("good"));
  channel->addRead(archive("cut")->subdata({0, 10}));
  channel->addRead(archive("never read"));
  const auto delegate = Recorder::make();
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("message good", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, TwoObjectsInOneReadEndTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(std::string(archive(1)->view()) + std::string(archive(2)->view()));
  const auto delegate = Recorder::make();
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, ListenWhileALoopRunsReturnsFalseAndChangesNothing) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate);
  std::vector<bool> answers;
  ZPKErrorPtr error = olderError();
  delegate->onMessage = [&] {
    answers.push_back(manager->listen(&error));
    answers.push_back(manager->started());
  };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(answers, ElementsAre(false, true, false, true));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "message 2", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, ADelegateWithoutOperationsLetsTheLoopRunAndDropEverything) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  EXPECT_TRUE(makeManager(channel, std::make_shared<Indifferent>())->listen());
  EXPECT_EQ(channel->readTimeouts().size(), 3U);
}

TEST(ZPKDataChannelManagerTest, TheDelegateSeesEveryReadBeforeItIsDeserialized) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(ZPKData::data());
  const auto delegate = Recorder::make();
  delegate->recordsReads = true;
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("should bytes", "message 1", "should empty", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, AReadThatTheDelegateRefusesIsDroppedWithoutEndingTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("refused"));
  channel->addRead(ZPKData::data());
  channel->addFailedRead(olderError());
  channel->addRead(archive("taken"));
  channel->addFailedRead(nullptr);
  const auto delegate = Recorder::make();
  delegate->recordsReads = true;
  delegate->onShould = [reads = 0](const ZPKDataPtr&) mutable { return ++reads > 3; };
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("should bytes", "should empty", "should null", "should bytes",
                          "message taken", "should null", "disconnect null idle"));
  EXPECT_EQ(log.texts().size(), 1U);
}

// Answers which operations it takes as a test tells it.
class Choosy final : public ZPKDataChannelManagerDelegate {
 public:
  explicit Choosy(std::set<Operation> operations) : _operations(std::move(operations)) {}

  bool implements(Operation operation) const override {
    asked.push_back(operation);
    return _operations.contains(operation);
  }
  bool shouldDeserializeData(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                             const ZPKDataPtr&) override {
    called.push_back(Operation::ShouldDeserializeData);
    return true;
  }
  void didReceiveMessage(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                         const ZPKObjectPtr&) override {
    called.push_back(Operation::DidReceiveMessage);
  }
  void didDisconnect(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                     const ZPKErrorPtr&) override {
    called.push_back(Operation::DidDisconnect);
  }

  mutable std::vector<Operation> asked;
  std::vector<Operation> called;

 private:
  const std::set<Operation> _operations;
};

TEST(ZPKDataChannelManagerTest, TheDelegateIsAskedBeforeEachCallWhetherItTakesIt) {
  const LogCapture log;
  const std::vector<Operation> allCalls{Operation::ShouldDeserializeData,
                                        Operation::DidReceiveMessage,
                                        Operation::ShouldDeserializeData, Operation::DidDisconnect};
  for (int choice = 0; choice < 8; ++choice) {
    std::set<Operation> taken;
    if ((choice & 1) != 0) taken.insert(Operation::ShouldDeserializeData);
    if ((choice & 2) != 0) taken.insert(Operation::DidReceiveMessage);
    if ((choice & 4) != 0) taken.insert(Operation::DidDisconnect);
    const auto channel = ScriptedChannel::make();
    channel->addRead(archive(1));
    const auto delegate = std::make_shared<Choosy>(taken);
    EXPECT_TRUE(makeManager(channel, delegate)->listen());
    EXPECT_EQ(delegate->asked, allCalls);
    std::vector<Operation> expected = allCalls;
    std::erase_if(expected, [&taken](Operation operation) { return !taken.contains(operation); });
    EXPECT_EQ(delegate->called, expected) << choice;
  }
}

TEST(ZPKDataChannelManagerTest, ANullDeserializerEndsTheLoopAfterItsFirstRead) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  const auto delegate = Recorder::make();
  const auto manager = Manager::managerWithDataChannel(channel, delegate, kUndetached, nullptr);
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->deserializer(), nullptr);
  EXPECT_TRUE(manager->listen());
  EXPECT_EQ(channel->readTimeouts().size(), 1U);
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZPKDataChannelManagerTest, AManagerWithoutAChannelEndsItsLoopAtOnce) {
  const LogCapture log;
  const auto delegate = Recorder::make();
  const auto manager = Manager::init();
  manager->setDelegate(delegate);
  manager->setZPKdataChannelManagerReceiveUndetached(true);
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, AManagerThatIsIdleAgainCanListenAgain) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate);
  EXPECT_TRUE(manager->listen());
  channel->addRead(archive("again"));
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("disconnect null idle", "message again", "disconnect null idle"));
  EXPECT_THAT(channel->calls(), ElementsAre("read", "read", "read"));
}

TEST(ZPKDataChannelManagerTest, UndetachedADelegateThatListensAgainAtTheEndRunsTheLoopInThatCall) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate);
  delegate->onDisconnect = [&, ends = 0]() mutable {
    if (++ends != 1) return;
    channel->addRead(archive("again"));
    EXPECT_TRUE(manager->listen());
    EXPECT_EQ(delegate->count("message again"), 1U);
  };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("disconnect null idle", "message again", "disconnect null idle"));
  EXPECT_FALSE(manager->started());
}

TEST(ZPKDataChannelManagerTest, PropertiesAreFetchedAnewAtEachUse) {
  const LogCapture log;
  const auto first = ScriptedChannel::make();
  const auto second = ScriptedChannel::make();
  first->addRead(archive("from the first"));
  first->addRead(archive("never read"));
  second->addRead(archive("from the second"));
  second->addRead(archive("never deserialized"));
  const auto oldDelegate = Recorder::make();
  const auto newDelegate = Recorder::make();
  const auto manager = makeManager(first, oldDelegate);
  oldDelegate->onMessage = [&] {
    manager->setDataChannel(second);
    manager->setDelegate(newDelegate);
  };
  newDelegate->onMessage = [&] { manager->setDeserializer(nullptr); };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(oldDelegate->events(), ElementsAre("message from the first"));
  EXPECT_THAT(newDelegate->events(),
              ElementsAre("message from the second", "disconnect null idle"));
  EXPECT_EQ(oldDelegate->lastChannel, first.get());
  EXPECT_EQ(newDelegate->lastChannel, second.get());
}

TEST(ZPKDataChannelManagerTest, ADelegateThatGoesInMidLoopLetsTheLoopDropTheRest) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  for (int i = 0; i < 3; ++i) channel->addRead(archive(i));
  auto delegate = Recorder::make();
  int messages = 0;
  const std::weak_ptr<Recorder> weakDelegate = delegate;
  const auto manager = makeManager(channel, delegate);
  delegate->onMessage = [&] {
    ++messages;
    delegate.reset();  // the last reference but that of the running call
    EXPECT_FALSE(weakDelegate.expired());
  };
  EXPECT_TRUE(manager->listen());
  EXPECT_EQ(messages, 1);
  EXPECT_TRUE(weakDelegate.expired());
  EXPECT_EQ(channel->readTimeouts().size(), 4U);
}

TEST(ZPKDataChannelManagerTest, TheDelegateMayLetGoOfTheLastReferenceInAnyCall) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate);
  const std::weak_ptr<Manager> weakManager = manager;
  delegate->onMessage = [&manager] { manager.reset(); };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "message 2", "disconnect null idle"));
  EXPECT_TRUE(weakManager.expired());
}

TEST(ZPKDataChannelManagerTest, TheDelegateMayDisconnectFromWithinACall) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate);
  delegate->onMessage = [&manager] { manager->disconnect(); };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(channel->calls(), ElementsAre("read", "close", "read"));
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
}

// --- disconnect.

TEST(ZPKDataChannelManagerTest, DisconnectOnAManagerThatNeverListenedClosesTheChannelOnly) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = Recorder::make();
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
  const auto manager = makeManager(channel, Recorder::make());
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
  const auto delegate = Recorder::make();
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

// --- The loop, on a thread of its own.

TEST(ZPKDataChannelManagerTest, DetachedListenReturnsAtOnceAndTheCallsComeOnAThreadOfThatName) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  channel->addRead(archive(1));
  const auto delegate = Recorder::make();
  std::thread::id thread;
  std::string name;
  delegate->onMessage = [&] {
    thread = std::this_thread::get_id();
    name = nameOfThisThread();
  };
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  EXPECT_TRUE(waitFor([&] { return manager->started(); }));
  EXPECT_FALSE(manager->listen());
  EXPECT_TRUE(delegate->events().empty());
  release.set_value();
  letGo(&manager);
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_TRUE(std::string("zephalbench.ZPKdataChannelManager.recv").starts_with(name));
  EXPECT_GE(name.size(), 15U);
}

TEST(ZPKDataChannelManagerTest, TheLoopHoldsItsManager) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  channel->addRead(archive(1));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  const std::weak_ptr<Manager> weakManager = manager;
  EXPECT_TRUE(manager->listen());
  manager.reset();
  EXPECT_FALSE(weakManager.expired());
  release.set_value();
  EXPECT_TRUE(waitFor([&] { return weakManager.expired(); }));
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, ADelegateMayBeDestroyedOnAnotherThreadWhileTheLoopReads) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  for (int i = 0; i < 3; ++i) channel->addRead(archive(i));
  auto delegate = Recorder::make();
  const std::weak_ptr<Recorder> weakDelegate = delegate;
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  EXPECT_TRUE(waitFor([&] { return manager->started(); }));
  delegate.reset();
  EXPECT_TRUE(weakDelegate.expired());
  release.set_value();
  letGo(&manager);
  EXPECT_EQ(channel->readTimeouts().size(), 4U);
}

TEST(ZPKDataChannelManagerTest, DetachedTheDelegateMayLetGoOfTheLastReference) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  channel->addRead(archive(1));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  const std::weak_ptr<Manager> weakManager = manager;
  delegate->onMessage = [&manager] { manager.reset(); };
  EXPECT_TRUE(manager->listen());
  release.set_value();
  EXPECT_TRUE(waitFor([&] { return weakManager.expired(); }));
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, TheDelegateMayListenAgainWhenItIsToldOfTheEnd) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  std::atomic<bool> hasListened = false;
  delegate->onDisconnect = [&, ends = 0]() mutable {
    if (++ends != 1) return;
    channel->addRead(archive("again"));
    hasListened = manager->listen();
  };
  EXPECT_TRUE(manager->listen());
  EXPECT_TRUE(waitFor([&] { return delegate->count("disconnect null idle") == 2; }));
  EXPECT_TRUE(waitFor([&] { return hasListened.load(); }));
  letGo(&manager);
  EXPECT_THAT(delegate->events(),
              ElementsAre("disconnect null idle", "message again", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, TwoListensInQuickSuccessionStartOneLoopOrTwo) {
  const LogCapture log;
  for (int round = 0; round < 20; ++round) {
    std::promise<void> release;
    const auto channel = makeBlockedChannel(release.get_future().share());
    const auto delegate = Recorder::make();
    auto manager = makeManager(channel, delegate, kDetached);
    std::atomic<size_t> loops = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i) {
      callers.emplace_back([&] { loops += manager->listen() ? 1 : 0; });
    }
    for (std::thread& caller : callers) caller.join();
    release.set_value();
    ASSERT_TRUE(waitFor([&] { return delegate->events().size() == loops; }));
    EXPECT_GE(loops, 1U);
    letGo(&manager);
  }
}

TEST(ZPKDataChannelManagerTest, PropertiesMayBeReplacedBesideARunningLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  for (int i = 0; i < 200; ++i) channel->addRead(archive(i));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  for (int i = 0; i < 100; ++i) {
    manager->setDelegate(i % 2 == 0 ? nullptr : delegate);
    manager->setDeserializer(ZPKDataDefaultSerializer::init());
    manager->setDataChannel(channel);
    manager->setManaged_dataChannels({channel});
  }
  letGo(&manager);
}

TEST(ZPKDataChannelManagerTest, TheLoopItselfRunsOnItsCallersThread) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("one"));
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate, kDetached);
  pthread_t looper{};
  std::string name;
  delegate->onMessage = [&] {
    looper = pthread_self();
    name = nameOfThisThread();
    EXPECT_TRUE(manager->started());
    EXPECT_FALSE(manager->listen());
  };
  const std::string nameBefore = nameOfThisThread();
  manager->receive_loop();
  pthread_setname_np(pthread_self(), nameBefore.c_str());
  EXPECT_TRUE(pthread_equal(looper, pthread_self()));
  EXPECT_TRUE(std::string("zephalbench.ZPKdataChannelManager.recv").starts_with(name)) << name;
  EXPECT_FALSE(manager->started());
  EXPECT_THAT(
      delegate->events(),
      ElementsAre("message " + ZPKString::init("one")->debugDescription(), "disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, ALoopThatACallerRunsKeepsItsManager) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("one"));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate);
  const std::weak_ptr<Manager> watch = manager;
  delegate->onMessage = [&] { manager.reset(); };
  manager.get()->receive_loop();
  EXPECT_EQ(delegate->count("disconnect null idle"), 1U);
  EXPECT_TRUE(watch.expired());
}

TEST(ZPKDataChannelManagerTest, ListenIsFalseIfTheSystemHasNoThread) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = Recorder::make();
  const auto manager = makeManager(channel, delegate, kDetached);
  ZPKErrorPtr error = olderError();
  {
    const RefusedThreads refused;
    EXPECT_FALSE(manager->listen(&error));
  }
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(manager->started());
  EXPECT_EQ(manager.use_count(), 1);
  EXPECT_TRUE(channel->calls().empty());
  EXPECT_TRUE(log.lines().empty());
}

// --- Over a real connection.

// Reads and writes whole packets with their size in two bytes; can be closed during a read.
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

TEST(ZPKDataChannelManagerTest, AnEmptyPacketEndsTheLoopUnlessAPassiveChannelIsOnTop) {
  const LogCapture log;
  for (const bool hasPassive : {false, true}) {
    const auto below = ScriptedChannel::make();
    for (const std::string& bytes : {packet(1), std::string(2, '\0'), packet(2)}) {
      below->addRead(bytes);
    }
    below->addFailedRead(nullptr);
    ZPKDataChannelPtr channel =
        createChannelTransformer(below, {createPacketAggregatorTransformer(2)}, {});
    if (hasPassive) channel = createPassiveChannel(channel);
    const auto delegate = Recorder::make();
    const auto manager = makeManager(channel, delegate);
    EXPECT_TRUE(manager->listen());
    EXPECT_EQ(delegate->count("message 1"), 1U);
    EXPECT_EQ(delegate->count("message 2"), hasPassive ? 1U : 0U);
  }
}

TEST(ZPKDataChannelManagerTest, DisconnectOnAnotherThreadEndsALoopThatWaitsOnAnActiveChannel) {
  const LogCapture log;
  TransportPeer peer(TransportPeer::Kind::kTCP);
  const ZPKDataChannelPtr channel = createActiveChannel(peer.makeChannel());
  ASSERT_TRUE(peer.open(channel));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  peer.send(std::string(archive("hello")->view()));
  EXPECT_TRUE(waitFor([&] { return delegate->count("message hello") == 1; }));
  manager->disconnect();
  letGo(&manager);
  EXPECT_THAT(delegate->events(), ElementsAre("message hello", "disconnect null idle"));
  EXPECT_FALSE(channel->isOpened());
}

// A read that was seen to wait holds the lock of its queue until it sleeps, so the close meets a
// loop that sits in its read of 1000 seconds, on a thread of its own or on the caller's.
TEST(ZPKDataChannelManagerTest, DisconnectEndsALoopThatSleepsInItsRead) {
  const LogCapture log;
  for (const bool isFramed : {false, true}) {
    for (const bool option : {kDetached, kUndetached}) {
      TransportPeer peer(TransportPeer::Kind::kTCP);
      const ZPKDataChannelPtr channel =
          isFramed ? makeFramed(peer.makeChannel()) : createActiveChannel(peer.makeChannel());
      ASSERT_TRUE(peer.open(channel));
      const auto delegate = Recorder::make();
      auto manager = makeManager(channel, delegate, option);
      const size_t waits = limitedWaits();
      std::thread caller([manager] { EXPECT_TRUE(manager->listen()); });
      EXPECT_TRUE(waitFor([&] { return limitedWaits() > waits; }));
      EXPECT_TRUE(manager->started());
      manager->disconnect();
      EXPECT_TRUE(waitFor([&] { return delegate->count("disconnect null idle") == 1; }));
      caller.join();
      letGo(&manager);
      EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
      EXPECT_FALSE(channel->isOpened());
    }
  }
}

TEST(ZPKDataChannelManagerTest, DisconnectEndsALoopOnABareSocket) {
  const LogCapture log;
  TransportPeer peer(TransportPeer::Kind::kTCP);
  const ZPKDataChannelPtr channel = peer.makeChannel();
  ASSERT_TRUE(peer.open(channel));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  {
    const SystemCalls calls(SystemCalls::Threads::kAll);
    EXPECT_TRUE(manager->listen());
    EXPECT_TRUE(waitFor([&] { return calls.count("select 1000.000000") == 1; }));
  }
  manager->disconnect();
  EXPECT_TRUE(waitFor([&] { return delegate->count("disconnect null idle") == 1; }));
  peer.hangUp();  // frees a loop that the disconnect did not
  letGo(&manager);
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
}

TEST(ZPKDataChannelManagerTest, APeerThatGoesEndsTheLoop) {
  const LogCapture log;
  TransportPeer peer(TransportPeer::Kind::kTCP);
  const ZPKDataChannelPtr channel = peer.makeChannel();
  ASSERT_TRUE(peer.open(channel));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  peer.hangUp();
  letGo(&manager);
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_FALSE(channel->isOpened());
}

// The packets of two messages, however the connection cuts them:
//
//     size payload | size payload      all in one read
//     si | ze payl | oad size ...      pieces of every length
TEST(ZPKDataChannelManagerTest, FramingBelowTheManagerJoinsWhatTheConnectionCuts) {
  const LogCapture log;
  TransportPeer peer(TransportPeer::Kind::kTCP);
  const ZPKDataChannelPtr channel = makeFramed(peer.makeChannel());
  ASSERT_TRUE(peer.open(channel));
  const auto delegate = Recorder::make();
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  const std::string both = packet({{"slot", 3}}) + packet("second");
  size_t expected = 0;
  for (size_t piece = 1; piece <= both.size(); piece += 7) {
    for (size_t at = 0; at < both.size(); at += piece) {
      const std::string part = both.substr(at, piece);
      ASSERT_EQ(::write(peer.descriptor(), part.data(), part.size()),
                static_cast<ssize_t>(part.size()));
    }
    ++expected;
    ASSERT_TRUE(waitFor([&] { return delegate->count("message second") == expected; })) << piece;
    EXPECT_EQ(delegate->count("message {\"slot\": 3}"), expected);
  }
  EXPECT_TRUE(channel->write(archive("answer")));
  EXPECT_EQ(peer.receive(packet("answer").size()), packet("answer"));
  manager->disconnect();
  letGo(&manager);
  EXPECT_EQ(delegate->count("disconnect null idle"), 1U);
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
