// The removal of echoes over real lines.

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Bytes.h"
#include "Support/EventWait.h"
#include "Support/SimulatedDevice.h"

using namespace support;

namespace {

class ZPIEchoRemovalChannelDeviceTest : public testing::TestWithParam<SimulatedDevice::Kind> {};

TEST_P(ZPIEchoRemovalChannelDeviceTest, ADevicesEchoesAreRemoved) {
  SimulatedDevice device(GetParam(), {.echoes = true,
                                      .responses = {{"version", "2.33\n"}, {"memory", "64k\n"}},
                                      .trickles = true});
  const ZPKDataChannelPtr base = createBaseChannelWithTransport(device.url());
  const ZPKDataChannelPtr channel = createEchoRemovalChannel(base, dataOf("\n"));
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  for (const auto& [command, response] :
       {std::pair("version\n", "2.33\n=> "), std::pair("memory\n", "64k\n=> ")}) {
    ASSERT_TRUE(channel->write(dataOf(command)));
    std::string answer;
    EXPECT_TRUE(waitFor([&] {
      const ZPKDataPtr data = channel->readWithTimeout(0.1);
      if (data != nullptr) answer += data->view();
      return data == nullptr || answer.ends_with("=> ");
    }));
    EXPECT_EQ(answer, response);
  }
  EXPECT_TRUE(channel->close());
}

INSTANTIATE_TEST_SUITE_P(Kinds, ZPIEchoRemovalChannelDeviceTest,
                         testing::Values(SimulatedDevice::Kind::kTerminal,
                                         SimulatedDevice::Kind::kTCP,
                                         SimulatedDevice::Kind::kUnix));

}  // namespace
