#include "Support/Managers.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>

#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Support/EventWait.h"

namespace support {

ZPKDataChannelManagerPtr makeManager(const ZPKDataChannelPtr& channel,
                                     const ZPKDataChannelManagerDelegatePtr& delegate,
                                     bool option) {
  return ZPKDataChannelManager::managerWithDataChannel(channel, delegate, option,
                                                       ZPKDataDefaultSerializer::init());
}

ZPKDataPtr archive(const ZPKValue& value) {
  return ZPKDataDefaultSerializer::init()->serialize(value);
}

bool isNameOfLoop(const std::string& name) {
  return name.size() >= 15 &&
         std::string("zephalbench.ZPKdataChannelManager.recv").starts_with(name);
}

std::string nameOfThisThread() {
  std::array<char, 64> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

std::shared_ptr<ScriptedChannel> makeBlockedChannel(const std::shared_future<void>& release) {
  auto channel = ScriptedChannel::make();
  channel->setOnRead([release](double) { release.wait(); });
  return channel;
}

void releaseManager(ZPKDataChannelManagerPtr* manager) {
  const std::weak_ptr<ZPKDataChannelManager> weakManager = *manager;
  manager->reset();
  EXPECT_TRUE(waitFor([&] { return weakManager.expired(); }));
}

}  // namespace support
