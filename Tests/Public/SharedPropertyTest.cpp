// A property that the program sets while the shared library reads it. A thread that waits for it
// must be woken. The wake-up is lost if program and library each have a copy of the waiting code,
// which would happen if one of the accessors were inlined.
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

// Open and silent.
class SilentChannel final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override { return ZPKData::data(); }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return true; }
};

// After a change, a read copies the text in the library. A long text takes so long to copy that the
// program, which replaces it at the same time, has to wait. A lost wake-up ends the rounds.
TEST(SharedPropertyTest, AProgramThatWaitsForTheLibraryIsWoken) {
  ZPKLoggingSetSink([](int, std::string_view) {});
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(std::make_shared<SilentChannel>()));
  std::atomic<bool> done = false;
  std::thread reader([&stack, &done] {
    while (!done) stack->readDataWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, nullptr);
  });
  for (int round = 0; round < 20; ++round) {
    stack->setEcidSwapInformation(std::string(20000000, 'x'));
  }
  done = true;
  reader.join();
  ZPKLoggingSetSink(nullptr);
  EXPECT_TRUE(stack->ecidSwapInformation().has_value());
}

}  // namespace
