// The loop of a manager on a thread of its own, or on one that the caller provides.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel/ZPKDataChannelManager.h"
#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/LogCapture.h"
#include "Support/Managers.h"
#include "Support/RecordingDelegate.h"
#include "Support/ScriptedChannel.h"
#include "Support/ThreadCalls.h"
#include "Utility/ZPKString.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Manager = ZPKDataChannelManager;

TEST(ZPKDataChannelManagerThreadTest, ListenReturnsAtOnceAndANamedThreadDelivers) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  channel->addRead(archive(1));
  const auto delegate = RecordingDelegate::make();
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
  releaseManager(&manager);
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_TRUE(isNameOfLoop(name)) << name;
}

TEST(ZPKDataChannelManagerThreadTest, TheLoopHoldsItsManager) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  channel->addRead(archive(1));
  const auto delegate = RecordingDelegate::make();
  auto manager = makeManager(channel, delegate, kDetached);
  const std::weak_ptr<Manager> weakManager = manager;
  EXPECT_TRUE(manager->listen());
  manager.reset();
  EXPECT_FALSE(weakManager.expired());
  release.set_value();
  EXPECT_TRUE(waitFor([&] { return weakManager.expired(); }));
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerThreadTest, ADelegateMayBeDestroyedWhileTheLoopReads) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  for (int i = 0; i < 3; ++i) channel->addRead(archive(i));
  auto delegate = RecordingDelegate::make();
  const std::weak_ptr<RecordingDelegate> weakDelegate = delegate;
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  EXPECT_TRUE(waitFor([&] { return manager->started(); }));
  delegate.reset();
  EXPECT_TRUE(weakDelegate.expired());
  release.set_value();
  releaseManager(&manager);
  EXPECT_EQ(channel->readTimeouts().size(), 4U);
}

TEST(ZPKDataChannelManagerThreadTest, TheDelegateMayDropTheLastReference) {
  const LogCapture log;
  std::promise<void> release;
  const auto channel = makeBlockedChannel(release.get_future().share());
  channel->addRead(archive(1));
  const auto delegate = RecordingDelegate::make();
  auto manager = makeManager(channel, delegate, kDetached);
  const std::weak_ptr<Manager> weakManager = manager;
  delegate->onMessage = [&manager] { manager.reset(); };
  EXPECT_TRUE(manager->listen());
  release.set_value();
  EXPECT_TRUE(waitFor([&] { return weakManager.expired(); }));
  EXPECT_THAT(delegate->events(), ElementsAre("message 1", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerThreadTest, TheDelegateMayListenAgainAtTheEnd) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
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
  releaseManager(&manager);
  EXPECT_THAT(delegate->events(),
              ElementsAre("disconnect null idle", "message again", "disconnect null idle"));
}

TEST(ZPKDataChannelManagerThreadTest, TwoListensInQuickSuccessionStartOneLoopOrTwo) {
  const LogCapture log;
  for (int round = 0; round < 20; ++round) {
    std::promise<void> release;
    const auto channel = makeBlockedChannel(release.get_future().share());
    const auto delegate = RecordingDelegate::make();
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
    releaseManager(&manager);
  }
}

TEST(ZPKDataChannelManagerThreadTest, PropertiesMayBeReplacedWhileALoopRuns) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  for (int i = 0; i < 200; ++i) channel->addRead(archive(i));
  const auto delegate = RecordingDelegate::make();
  auto manager = makeManager(channel, delegate, kDetached);
  EXPECT_TRUE(manager->listen());
  for (int i = 0; i < 100; ++i) {
    manager->setDelegate(i % 2 == 0 ? nullptr : delegate);
    manager->setDeserializer(ZPKDataDefaultSerializer::init());
    manager->setDataChannel(channel);
    manager->setManaged_dataChannels({channel});
  }
  releaseManager(&manager);
}

TEST(ZPKDataChannelManagerThreadTest, TheLoopItselfRunsOnItsCallersThread) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("one"));
  const auto delegate = RecordingDelegate::make();
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
  EXPECT_TRUE(isNameOfLoop(name)) << name;
  EXPECT_FALSE(manager->started());
  EXPECT_THAT(
      delegate->events(),
      ElementsAre("message " + ZPKString::init("one")->debugDescription(), "disconnect null idle"));
}

TEST(ZPKDataChannelManagerThreadTest, ALoopThatACallerRunsKeepsItsManager) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  channel->addRead(archive("one"));
  const auto delegate = RecordingDelegate::make();
  auto manager = makeManager(channel, delegate);
  const std::weak_ptr<Manager> watch = manager;
  delegate->onMessage = [&] { manager.reset(); };
  manager.get()->receive_loop();
  EXPECT_EQ(delegate->count("disconnect null idle"), 1U);
  EXPECT_TRUE(watch.expired());
}

TEST(ZPKDataChannelManagerThreadTest, ListenReturnsFalseIfNoThreadCanBeStarted) {
  const LogCapture log;
  const auto channel = ScriptedChannel::make();
  const auto delegate = RecordingDelegate::make();
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

}  // namespace
