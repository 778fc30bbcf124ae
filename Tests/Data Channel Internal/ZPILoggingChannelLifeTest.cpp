#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/HeldLogWrite.h"
#include "Support/HookedChannel.h"
#include "Support/LogFile.h"
#include "Support/LoggingChannelFixture.h"
#include "Support/OpenDescriptors.h"
#include "Support/ProcessThreads.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ZPILoggingChannelLifeTest = LoggingChannelFixture;

// --- Open and close.

TEST_F(ZPILoggingChannelLifeTest, NothingIsOpenedBeforeOpen) {
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(_path));
  EXPECT_THAT(_below->calls(), IsEmpty());
}

TEST_F(ZPILoggingChannelLifeTest, OpenCreatesTheFileAndThenOpensTheChannelBelow) {
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->openWithTimeout(2.5, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(std::filesystem::exists(_path));
  EXPECT_NE(_channel->fileHandle(), nullptr);
  EXPECT_THAT(_below->openTimeouts(), ElementsAre(2.5));
  EXPECT_TRUE(_channel->isOpened());
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPILoggingChannelLifeTest, ANewFileHasThePermissions0666LessTheUmask) {
  const mode_t before = ::umask(027);
  open();
  ::umask(before);
  EXPECT_EQ(permissionsOfFile(_path), mode_t{0640});
}

TEST_F(ZPILoggingChannelLifeTest, AnExistingFileIsAppendedToAndKeepsItsPermissions) {
  writeFile(_path, "\n2024-01-01 00:00:00.000 <old>[1]: old");
  ::chmod(_path.c_str(), 0600);
  open();
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("old: old", "pre--write: ver"));
  EXPECT_EQ(permissionsOfFile(_path), mode_t{0600});
}

TEST_F(ZPILoggingChannelLifeTest, ALinkIsFollowedToItsFile) {
  std::filesystem::create_symlink(_folder.pathOf("target"), _path);
  open();
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(textsOfLog(_folder.pathOf("target")), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelLifeTest, OneFileCollectsSeveralSessions) {
  for (const char* text : {"one", "two"}) {
    open();
    write(text);
    _channel->close(nullptr);
  }
  EXPECT_THAT(texts(), ElementsAre("pre--write: one", "pre--write: two"));
}

TEST_F(ZPILoggingChannelLifeTest, TheFileStaysOpenIfTheOpenBelowFails) {
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 4, {});
  _below->setOpened(false);
  _below->setOpenResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_NE(_channel->fileHandle(), nullptr);
  EXPECT_FALSE(_channel->isOpened());
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelLifeTest, ASecondOpenReplacesTheFileAndOpensBelowAgain) {
  const std::set<int> before = openDescriptors();
  open();
  const std::weak_ptr<ZPILogFileHandle> first = _channel->fileHandle();
  write("one");
  std::filesystem::rename(_path, _path + ".1");
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 1, {});
  _below->setOpenResult(false, fromBelow);
  ZPKErrorPtr error;
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, fromBelow);
  write("two");
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_TRUE(first.expired());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(textsOfLog(_path + ".1"), ElementsAre("pre--write: one"));
  EXPECT_THAT(texts(), ElementsAre("pre--write: two"));
}

TEST_F(ZPILoggingChannelLifeTest, CloseClosesTheFileAndThenTheChannelBelow) {
  const std::set<int> before = openDescriptors();
  open();
  EXPECT_EQ(openDescriptors().size(), before.size() + 1);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(_below->calls(), ElementsAre("open", "close"));
  EXPECT_FALSE(_channel->isOpened());
}

TEST_F(ZPILoggingChannelLifeTest, TheFileIsClosedEvenIfTheCloseBelowFails) {
  open();
  write("ver");
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 2, {});
  _below->setCloseResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->close(&error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelLifeTest, ClosingAClosedChannelIsLeftToTheChannelBelow) {
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_THAT(_below->calls(), ElementsAre("close"));
}

// --- The end of a channel.

ZPKDataChannelPtr channelThatTellsItsEnd(std::promise<std::thread::id>* destroyed) {
  auto channel = std::make_shared<HookedChannel>();
  channel->onDestroy = [destroyed] { destroyed->set_value(std::this_thread::get_id()); };
  return channel;
}

TEST_F(ZPILoggingChannelLifeTest, ATaskCanBeTheLastToHoldItsChannel) {
  const std::set<int> before = openDescriptors();
  std::promise<std::thread::id> destroyed;
  ZPKDataChannelPtr channel =
      createLoggingChannel(channelThatTellsItsEnd(&destroyed), _path, "pre-", false);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  HeldLogWrite held;
  channel->write(dataOf("first"));
  EXPECT_TRUE(held.waitUntilHeld());
  channel->write(dataOf("second"));
  channel.reset();
  auto end = destroyed.get_future();
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  held.release();
  EXPECT_NE(end.get(), std::this_thread::get_id());
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
  // The task's thread wrote the second chunk too, when it destroyed the channel.
  EXPECT_THAT(texts(), ElementsAre("pre--write: first", "pre--write: second"));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ZPILoggingChannelLifeTest, ADroppedChannelClosesItsFileButNothingBelow) {
  const std::set<int> before = openDescriptors();
  _channel->setSynchronousLogging(true);
  open();
  write("ver");
  _channel.reset();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(_below->isOpened());
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelLifeTest, ChannelsCanBeDroppedInTheMiddleOfTheirTraffic) {
  for (int i = 0; i < 200; ++i) {
    std::promise<std::thread::id> destroyed;
    ZPKDataChannelPtr channel =
        createLoggingChannel(channelThatTellsItsEnd(&destroyed), _path, "pre-", false);
    ASSERT_TRUE(channel->openWithTimeout(1.0));
    for (int j = 0; j < 3; ++j) channel->write(dataOf("version"));
    channel.reset();
    ASSERT_EQ(destroyed.get_future().wait_for(kPatience), std::future_status::ready);
  }
  // Whoever released it last has written the pending chunks.
  EXPECT_EQ(texts(), std::vector<std::string>(600, "pre--write: version"));
}

TEST_F(ZPILoggingChannelLifeTest, TheThreadOfADroppedChannelEnds) {
  open();
  _channel.reset();
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
}

}  // namespace
