#include <ZephalIO/ZephalIO.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

// Gives up on a device that sends more than `limit` bytes after a write.
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
    ZPKDataPtr data = _channel->readWithTimeout(timeout, error);
    if (data == nullptr || (_sinceLastWrite += data->length()) <= _limit) return data;
    _channel->close();
    if (error != nullptr) {
      const std::string reason = "more than " + std::to_string(_limit) + " bytes";
      *error = ZPKError::init("station", 1, {{std::string(ZPKErrorDescriptionKey), reason}});
    }
    return nullptr;
  }

 private:
  const ZPKDataChannelPtr _channel;
  const size_t _limit;
  std::atomic<size_t> _sinceLastWrite{0};  // a background reader reads during a write
};

// own-channel URL LIMIT
int main(int, char** arguments) {
  ZPKErrorPtr error;
  const auto transport = createBaseChannelWithTransport(arguments[1], &error);
  const auto base =
      std::make_shared<BoundedChannel>(transport, static_cast<size_t>(std::atol(arguments[2])));
  auto stack = ZPKCommStack::init();
  if (transport == nullptr || !stack->createStackWithBaseChannel(base, &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  const auto answer = stack->sendCommandString("dump", 30.0, &error);
  std::printf("%s\n", answer.value_or(error == nullptr ? "?" : error->description()).c_str());
}
