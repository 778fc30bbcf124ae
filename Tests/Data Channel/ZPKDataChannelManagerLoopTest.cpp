// The loop of a manager on the thread that calls listen.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Data Channel/ZPKDataChannelManager.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/Managers.h"
#include "Support/RecordingDelegate.h"
#include "Support/ScriptedChannel.h"
#include "Utility/ZPKDictionary.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Manager = ZPKDataChannelManager;
using Operation = ZPKDataChannelManagerDelegate::Operation;

// Implements none of the operations.
class Indifferent final : public ZPKDataChannelManagerDelegate {};

TEST(ZPKDataChannelManagerLoopTest, EachReadIsDeliveredAsOneObject) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("first"));
  channel->addRead(archive({{"slot", 3}}));
  channel->addFailedRead(nullptr);
  const auto delegate = RecordingDelegate::make();
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

TEST(ZPKDataChannelManagerLoopTest, EachReadHasATimeoutOf1000Seconds) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  makeManager(channel, RecordingDelegate::make())->listen();
  EXPECT_THAT(channel->readTimeouts(), ElementsAre(1000.0, 1000.0));
}

TEST(ZPKDataChannelManagerLoopTest, UndetachedTheDelegateIsCalledOnTheCallersThread) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  const auto delegate = RecordingDelegate::make();
  std::vector<std::thread::id> threads;
  delegate->onMessage = [&threads] { threads.push_back(std::this_thread::get_id()); };
  delegate->onDisconnect = delegate->onMessage;
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(threads, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST(ZPKDataChannelManagerLoopTest, UndetachedTheCallersThreadIsNamedAndStaysSo) {
  const LogCapture log;
  std::string nameInLoop;
  std::string nameAfterwards;
  std::thread([&] {
    const auto delegate = RecordingDelegate::make();
    delegate->onDisconnect = [&nameInLoop] { nameInLoop = nameOfThisThread(); };
    makeManager(ScriptedChannel::make(), delegate)->listen();
    nameAfterwards = nameOfThisThread();
  }).join();
  EXPECT_TRUE(isNameOfLoop(nameInLoop)) << nameInLoop;
  EXPECT_EQ(nameAfterwards, nameInLoop);
}

TEST(ZPKDataChannelManagerLoopTest, AFailedFirstReadCausesOneDisconnectWithoutItsError) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addFailedRead(olderError());
  const auto delegate = RecordingDelegate::make();
  ZPKErrorPtr error;
  EXPECT_TRUE(makeManager(channel, delegate)->listen(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_EQ(log.texts().size(), 1U);
  EXPECT_TRUE(log.texts()[0].starts_with("Error in deserialization CBOR (1): "));
}

TEST(ZPKDataChannelManagerLoopTest, AReadThatTimesOutEndsTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(ZPKData::data());
  channel->addRead(archive("never read"));
  const auto delegate = RecordingDelegate::make();
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_TRUE(channel->isOpened());
}

TEST(ZPKDataChannelManagerLoopTest, ADamagedObjectEndsTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("good"));
  channel->addRead(archive("cut")->subdata({0, 10}));
  channel->addRead(archive("never read"));
  const auto delegate = RecordingDelegate::make();
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("message good", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerLoopTest, TwoObjectsInOneReadEndTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(std::string(archive(1)->view()) + std::string(archive(2)->view()));
  const auto delegate = RecordingDelegate::make();
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
}

TEST(ZPKDataChannelManagerLoopTest, ListenWhileALoopRunsReturnsFalseAndChangesNothing) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  const auto delegate = RecordingDelegate::make();
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

TEST(ZPKDataChannelManagerLoopTest, WithoutOperationsInTheDelegateEverythingIsDropped) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  EXPECT_TRUE(makeManager(channel, std::make_shared<Indifferent>())->listen());
  EXPECT_EQ(channel->readTimeouts().size(), 3U);
}

TEST(ZPKDataChannelManagerLoopTest, TheDelegateSeesEveryReadBeforeItIsDeserialized) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(ZPKData::data());
  const auto delegate = RecordingDelegate::make();
  delegate->recordsReads = true;
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("should bytes", "message 1", "should empty", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerLoopTest, ARefusedReadIsDroppedWithoutEndingTheLoop) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("refused"));
  channel->addRead(ZPKData::data());
  channel->addFailedRead(olderError());
  channel->addRead(archive("taken"));
  channel->addFailedRead(nullptr);
  const auto delegate = RecordingDelegate::make();
  delegate->recordsReads = true;
  delegate->onShould = [reads = 0](const ZPKDataPtr&) mutable { return ++reads > 3; };
  EXPECT_TRUE(makeManager(channel, delegate)->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("should bytes", "should empty", "should null", "should bytes",
                          "message taken", "should null", "disconnect null idle"));
  EXPECT_EQ(log.texts().size(), 1U);
}

// Implements only the operations that a test names.
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

TEST(ZPKDataChannelManagerLoopTest, TheDelegateIsAskedAboutEachCallFirst) {
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

TEST(ZPKDataChannelManagerLoopTest, ANullDeserializerEndsTheLoopAfterItsFirstRead) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  const auto delegate = RecordingDelegate::make();
  const auto manager = Manager::managerWithDataChannel(channel, delegate, kUndetached, nullptr);
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->deserializer(), nullptr);
  EXPECT_TRUE(manager->listen());
  EXPECT_EQ(channel->readTimeouts().size(), 1U);
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZPKDataChannelManagerLoopTest, AManagerWithoutAChannelEndsItsLoopAtOnce) {
  const LogCapture log;
  const auto delegate = RecordingDelegate::make();
  const auto manager = Manager::init();
  manager->setDelegate(delegate);
  manager->setZPKdataChannelManagerReceiveUndetached(true);
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("disconnect null idle"));
}

TEST(ZPKDataChannelManagerLoopTest, AManagerThatIsIdleAgainCanListenAgain) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
  const auto manager = makeManager(channel, delegate);
  EXPECT_TRUE(manager->listen());
  channel->addRead(archive("again"));
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(),
              ElementsAre("disconnect null idle", "message again", "disconnect null idle"));
  EXPECT_THAT(channel->calls(), ElementsAre("read", "read", "read"));
}

TEST(ZPKDataChannelManagerLoopTest, UndetachedListeningAgainAtTheEndRunsTheLoopThere) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
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

TEST(ZPKDataChannelManagerLoopTest, PropertiesAreFetchedAnewAtEachUse) {
  const LogCapture log;
  const auto first = ScriptedChannel::make();
  const auto second = ScriptedChannel::make();
  first->addRead(archive("from the first"));
  first->addRead(archive("never read"));
  second->addRead(archive("from the second"));
  second->addRead(archive("never deserialized"));
  const auto oldDelegate = RecordingDelegate::make();
  const auto newDelegate = RecordingDelegate::make();
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

TEST(ZPKDataChannelManagerLoopTest, AfterItsDelegateHasGoneALoopDropsTheRest) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  for (int i = 0; i < 3; ++i) channel->addRead(archive(i));
  auto delegate = RecordingDelegate::make();
  int messages = 0;
  const std::weak_ptr<RecordingDelegate> weakDelegate = delegate;
  const auto manager = makeManager(channel, delegate);
  delegate->onMessage = [&] {
    ++messages;
    delegate.reset();  // the last reference except that of the running call
    EXPECT_FALSE(weakDelegate.expired());
  };
  EXPECT_TRUE(manager->listen());
  EXPECT_EQ(messages, 1);
  EXPECT_TRUE(weakDelegate.expired());
  EXPECT_EQ(channel->readTimeouts().size(), 4U);
}

TEST(ZPKDataChannelManagerLoopTest, TheDelegateMayDropTheLastReference) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  channel->addRead(archive(2));
  const auto delegate = RecordingDelegate::make();
  auto manager = makeManager(channel, delegate);
  const std::weak_ptr<Manager> weakManager = manager;
  delegate->onMessage = [&manager] { manager.reset(); };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "message 2", "disconnect null idle"));
  EXPECT_TRUE(weakManager.expired());
}

TEST(ZPKDataChannelManagerLoopTest, TheDelegateMayDisconnectFromWithinACall) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive(1));
  const auto delegate = RecordingDelegate::make();
  const auto manager = makeManager(channel, delegate);
  delegate->onMessage = [&manager] { manager->disconnect(); };
  EXPECT_TRUE(manager->listen());
  EXPECT_THAT(channel->calls(), ElementsAre("read", "close", "read"));
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
}

}  // namespace
