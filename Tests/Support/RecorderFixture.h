#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "Data Stack/ZPKCommLoggerStack.h"
#include "Support/TemporaryFolder.h"
#include "Support/WaitingChannel.h"

namespace support {

/// A recorder with both logs on a channel that waits for what the test delivers.
class RecorderFixture : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(stack->setLogFilePath(postPath, prePath)); }

  void open() {
    ASSERT_TRUE(stack->createStackWithBaseChannel(base));
    ASSERT_TRUE(stack->open());
  }

  /// Delivers the data for one read, and waits until the thread has processed it.
  void deliver(std::string_view bytes) {
    base->deliver(bytes);
    ASSERT_TRUE(base->waitUntilAllIsPassedOn());
  }

  TemporaryFolder folder;
  const std::string postPath = folder.pathOf("post.log");
  const std::string prePath = folder.pathOf("pre.log");
  std::shared_ptr<WaitingChannel> base = WaitingChannel::make();
  ZPKCommLoggerStackPtr stack = ZPKCommLoggerStack::init();
};

}  // namespace support
