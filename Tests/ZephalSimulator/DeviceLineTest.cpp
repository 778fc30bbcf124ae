#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "Data Channel/ZPKDataChannel.h"
#include "DeviceLine.h"
#include "Support/TemporaryFolder.h"

using namespace zephal;

namespace {

bool canBeOpened(const DeviceLine& line) {
  const auto channel = createBaseChannelWithTransport(line.url());
  if (!channel->openWithTimeout(1.0)) return false;
  channel->close();
  return true;
}

// The errno of the failure to appear; 0: none.
int failureAt(const DevicePlace& place) {
  try {
    DeviceLine(place).appear();
    return 0;
  } catch (const std::system_error& failure) {
    return failure.code().value();
  }
}

class DeviceLineTest : public testing::TestWithParam<DeviceKind> {};

TEST_P(DeviceLineTest, ALineComesAndGoesAtOneURL) {
  DeviceLine line(GetParam());
  const std::string url = line.url();
  for (int round = 0; round < 3; ++round) {
    EXPECT_FALSE(canBeOpened(line));
    line.appear();
    EXPECT_TRUE(canBeOpened(line));
    EXPECT_EQ(line.url(), url);
    line.disappear();
    EXPECT_EQ(line.descriptor(), -1);
  }
  EXPECT_FALSE(canBeOpened(line));
}

TEST_P(DeviceLineTest, NothingIsLeftBehind) {
  std::string path;
  {
    DeviceLine line(GetParam());
    line.appear();
    path = line.place().path;
  }
  if (path.empty()) return;
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path).parent_path()));
}

TEST_P(DeviceLineTest, BytesGoBothWays) {
  DeviceLine line(GetParam());
  line.appear();
  const auto channel = createBaseChannelWithTransport(line.url());
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  EXPECT_EQ(line.accept(), GetParam() != DeviceKind::kTerminal);
  EXPECT_EQ(line.receive(), "");
  EXPECT_EQ(line.send("hello"), 5U);
  EXPECT_EQ(channel->readWithTimeout(30.0)->view(), "hello");
  EXPECT_TRUE(channel->write(ZPKData::dataWithString("you")));
  std::string text;
  while (text.size() < 3) text += line.receive().value();
  EXPECT_EQ(text, "you");
  line.hangUp();
  EXPECT_EQ(channel->readWithTimeout(30.0), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DeviceLineTest,
                         testing::Values(DeviceKind::kTerminal, DeviceKind::kTCP,
                                         DeviceKind::kUnix));

TEST(DeviceLinePlaceTest, APlaceMayBeGiven) {
  const support::TemporaryFolder folder;
  DeviceLine terminal(DevicePlace::terminalAt(folder.pathOf("tty")));
  DeviceLine local(DevicePlace::unixAt(folder.pathOf("socket")));
  terminal.appear();
  local.appear();
  EXPECT_EQ(terminal.url(), "uart://" + folder.pathOf("tty"));
  EXPECT_EQ(local.url(), "unix://" + folder.pathOf("socket"));
  EXPECT_TRUE(canBeOpened(terminal));
  EXPECT_TRUE(canBeOpened(local));
}

TEST(DeviceLinePlaceTest, AnyPathMakesAURL) {
  const support::TemporaryFolder folder;
  for (const char* name : {"with a blank", "100%", "what?x=1#y", "\xC3\xBC"}) {
    DeviceLine terminal(DevicePlace::terminalAt(folder.pathOf(name)));
    terminal.appear();
    EXPECT_TRUE(canBeOpened(terminal)) << terminal.url();
  }
  const DeviceLine relative(DevicePlace::unixAt("socket"));
  EXPECT_EQ(relative.url(), "unix://" + std::filesystem::current_path().string() + "/socket");
}

TEST(DeviceLinePlaceTest, WhatIsInTheWayStays) {
  const support::TemporaryFolder folder;
  const std::string path = folder.pathOf("taken");
  ::close(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  EXPECT_EQ(failureAt(DevicePlace::terminalAt(path)), EEXIST);
  EXPECT_EQ(failureAt(DevicePlace::unixAt(path)), EADDRINUSE);
  EXPECT_EQ(failureAt(DevicePlace::unixAt(folder.pathOf(std::string(200, 'x')))), ENAMETOOLONG);
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

TEST(DeviceLinePlaceTest, AnotherDevicesPortIsRefused) {
  DeviceLine line(DeviceKind::kTCP);
  line.appear();
  EXPECT_EQ(failureAt(DevicePlace::tcpAt(line.place().port)), EADDRINUSE);
}

}  // namespace
