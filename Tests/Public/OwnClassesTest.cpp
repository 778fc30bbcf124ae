// A caller's classes that implement the library's contracts, and the library's objects in a
// caller's hands: what must work across the boundary of the shared library.
#include <ZephalIO/ZephalIO.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "AnsweringPeer.h"

namespace {

// Returns whatever is written, followed by "> ".
class EchoChannel final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return _opened = true; }
  bool close(ZPKErrorPtr*) override { return std::exchange(_opened, false); }
  bool reset(ZPKErrorPtr*) override {
    ++resets;
    return true;
  }
  bool isOpened() const override { return _opened; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    return ZPKData::dataWithString(std::exchange(_waiting, std::string()));
  }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr*) override {
    _waiting += std::string(data->view()) + "> ";
    return true;
  }

  int resets = 0;

 private:
  bool _opened = false;
  std::string _waiting;
};

// As in Documentation/Surprises.md.
class BoundedChannel final : public ZPKDataChannel {
 public:
  BoundedChannel(ZPKDataChannelPtr channel, size_t limit)
      : _channel(std::move(channel)), _limit(limit) {}

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override {
    _sinceLastWrite = 0;
    return _channel->openWithTimeout(timeout, error);
  }
  bool close(ZPKErrorPtr* error) override { return _channel->close(error); }
  bool reset(ZPKErrorPtr* error) override { return _channel->reset(error); }
  bool isOpened() const override { return _channel->isOpened(); }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override {
    _sinceLastWrite = 0;
    return _channel->write(data, error);
  }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override {
    const ZPKDataPtr data = _channel->readWithTimeout(timeout, error);
    if (data == nullptr || (_sinceLastWrite += data->length()) <= _limit) return data;
    _channel->close();
    if (error != nullptr) *error = ZPKError::init("station", 1, {});
    return nullptr;
  }

 private:
  const ZPKDataChannelPtr _channel;
  const size_t _limit;
  std::atomic<size_t> _sinceLastWrite{0};  // a background reader reads during a write
};

class UpperCase final : public ZPKDataTransformer {
 public:
  void modifyData(ZPKMutableData* data) override {
    for (size_t i = 0; i < data->length(); ++i) {
      data->mutableBytes()[i] = static_cast<uint8_t>(std::toupper(data->bytes()[i]));
    }
  }
  bool reset(ZPKErrorPtr*) override {
    ++resets;
    return true;
  }

  int resets = 0;
};

TEST(OwnClassesTest, ACallersChannelWorksAtTheBottomOfAStack) {
  const auto channel = std::make_shared<EchoChannel>();
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(channel));
  EXPECT_EQ(stack->isOpen(), 0);
  ASSERT_TRUE(stack->openWithTimeout(std::nullopt));
  EXPECT_EQ(stack->sendCommandString("hello", 30), "hello\n> ");
  EXPECT_TRUE(stack->close());
  EXPECT_FALSE(channel->isOpened());
  EXPECT_EQ(channel->resets, 1);
}

TEST(OwnClassesTest, ACallersChannelLimitsWhatAPeerCanFill) {
  for (const bool readsAhead : {false, true}) {
    AnsweringPeer peer([](const std::string& line) {
      return line == "dump" ? std::string(1 << 20, 'x') : "ok> ";
    });
    const auto stack = ZPKCommStack::init();
    stack->setActiveChannelOnOff(readsAhead, nullptr);
    const auto socket = createActiveTCPChannelWithSocket(peer.takeSocket());
    ASSERT_TRUE(stack->createStackWithBaseChannel(
        std::make_shared<BoundedChannel>(socket, size_t{1} << 18)));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(stack->sendCommandString("status", 30), "ok> ");
    ZPKErrorPtr error;
    EXPECT_EQ(stack->sendCommandString("dump", 30, &error), std::nullopt);
    // A background reader can detect the failure between two slices of a read, which then has no
    // error.
    if (!readsAhead) {
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), "station");
    }
    EXPECT_EQ(stack->isOpen(), 0);
    EXPECT_FALSE(socket->isOpened());
    EXPECT_LE(stack->aggregator()->buffer()->length(), size_t{1} << 18);
    peer.hangUp();
  }
}

// The library's own layers have a faster way to pass held units up.
TEST(OwnClassesTest, ACallersChannelBetweenTheLibrarysOwnChangesNoResult) {
  for (const bool isBetween : {false, true}) {
    const auto echo = std::make_shared<EchoChannel>();
    ZPKDataChannelPtr channel = createAggregatingTransformerChannel(
        echo,
        ZPKMutableDataAggregatorTransformer::initWithTerminator(ZPKData::dataWithString("> ")));
    if (isBetween) channel = std::make_shared<BoundedChannel>(channel, 100);
    channel = createPassiveChannel(channel);
    ASSERT_TRUE(channel->openWithTimeout(0));
    for (const char* text : {"one", "two", "three"}) {
      ASSERT_TRUE(channel->write(ZPKData::dataWithString(text)));
    }
    EXPECT_EQ(channel->readWithTimeout(30)->string(), "one> ");
    EXPECT_EQ(channel->readWithTimeout(30)->string(), "two> ");
    EXPECT_EQ(channel->readWithTimeout(0)->string(), "three> ");
    EXPECT_EQ(channel->readWithTimeout(0)->string(), "");
    EXPECT_TRUE(channel->close());
  }
}

TEST(OwnClassesTest, ACallersTransformerEditsWhatIsRead) {
  const auto upper = std::make_shared<UpperCase>();
  const auto channel = createChannelTransformer(std::make_shared<EchoChannel>(), {upper}, {});
  ASSERT_NE(channel, nullptr);
  ASSERT_TRUE(channel->write(ZPKData::dataWithString("hello")));
  EXPECT_EQ(channel->readWithTimeout(0)->string(), "HELLO> ");
  EXPECT_TRUE(channel->reset());
  EXPECT_EQ(upper->resets, 1);
}

TEST(OwnClassesTest, ACallersTransformerEditsACopyOfWhatIsWritten) {
  const auto channel = createChannelTransformer(std::make_shared<EchoChannel>(), {},
                                                {std::make_shared<UpperCase>()});
  const auto written = ZPKData::dataWithString("hello");
  ASSERT_TRUE(channel->write(written));
  EXPECT_EQ(written->string(), "hello");
  EXPECT_EQ(channel->readWithTimeout(0)->string(), "HELLO> ");
}

TEST(OwnClassesTest, TheProgramCanDowncastALibraryTransformer) {
  const ZPKDataTransformerPtr transformer =
      ZPKMutableDataAggregatorTransformer::initWithTerminator(ZPKData::dataWithString("\n"));
  EXPECT_NE(std::dynamic_pointer_cast<ZPKMutableDataAggregatorTransformer>(transformer), nullptr);
  EXPECT_EQ(std::dynamic_pointer_cast<ZPKMutableDataAppendingTransformer>(transformer), nullptr);
  EXPECT_EQ(std::dynamic_pointer_cast<UpperCase>(transformer), nullptr);
}

TEST(OwnClassesTest, TheProgramCanDowncastLibraryData) {
  const ZPKDataPtr fixed = ZPKData::dataWithString("hello");
  const ZPKDataPtr growable = fixed->mutableCopy();
  EXPECT_EQ(std::dynamic_pointer_cast<const ZPKMutableData>(fixed), nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<const ZPKMutableData>(growable), nullptr);
}

TEST(OwnClassesTest, ACallersChannelFromTheLibraryCanBeDowncast) {
  const auto stack = ZPKCommStack::init();
  stack->setCommChannel(std::make_shared<EchoChannel>());
  EXPECT_NE(std::dynamic_pointer_cast<EchoChannel>(stack->commChannel()), nullptr);
  ASSERT_TRUE(stack->createStackWithBaseChannel(stack->commChannel()));
  EXPECT_EQ(std::dynamic_pointer_cast<EchoChannel>(stack->commChannel()), nullptr);
}

// A mode shorter than three characters is the one failure that is thrown.
TEST(OwnClassesTest, TheProgramCatchesTheLibrarysOneException) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_EQ(::grantpt(terminal), 0);
  ASSERT_EQ(::unlockpt(terminal), 0);
  const std::string url = std::string("uart://") + ::ptsname(terminal) + "?mode=8";
  const auto channel = createBaseChannelWithTransport(url);
  ASSERT_NE(channel, nullptr);
  EXPECT_THROW(channel->openWithTimeout(0), std::out_of_range);
  ::close(terminal);
}

}  // namespace
