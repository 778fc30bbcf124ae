#include <gtest/gtest.h>

#include "Data Channel/ZPIBaseChannelForURL.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

std::optional<ZPKDataChannelPtr> channelFor(const char* url, ZPKErrorPtr* error) {
  return ZPIBaseChannelForURL(ZPKURL::initWithString(url), error);
}

TEST(ZPIBaseChannelForURLTest, EachKnownSchemeGivesAClosedChannelWithoutError) {
  for (const char* url : {"uart:///dev/null", "tcp://localhost:1", "unix:///nowhere"}) {
    LogCapture log;
    ZPKErrorPtr error = olderError();
    const auto channel = channelFor(url, &error);
    ASSERT_TRUE(channel.has_value()) << url;
    ASSERT_NE(*channel, nullptr) << url;
    EXPECT_FALSE((*channel)->isOpened()) << url;
    EXPECT_EQ(error, olderError());
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(ZPIBaseChannelForURLTest, AnUnknownSchemeIsLeftToTheCallerToReport) {
  for (const char* url : {"http://host/", "UART:///dev/null", "Tcp://h:1", "/dev/null"}) {
    LogCapture log;
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(channelFor(url, &error).has_value()) << url;
    EXPECT_EQ(error, olderError());
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(ZPIBaseChannelForURLTest, ANullURLIsLeftToTheCallerToReport) {
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(ZPIBaseChannelForURL(nullptr, &error).has_value());
  EXPECT_EQ(error, olderError());
}

}  // namespace
