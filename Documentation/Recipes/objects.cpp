#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <future>
#include <memory>

// Gets each object that arrives, on the manager's thread.
class Answers final : public ZPKDataChannelManagerDelegate {
 public:
  void didReceiveMessage(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                         const ZPKObjectPtr& message) override {
    std::printf("%s\n", message->debugDescription().c_str());
    manager->disconnect();
  }
  void didDisconnect(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                     const ZPKErrorPtr&) override {
    ended.set_value();
  }

  ZPKDataChannelManagerPtr manager;
  std::promise<void> ended;
};

// objects URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  const auto line = createBaseChannelWithTransport(arguments[1], &error);
  const auto channel = createPassiveChannel(createChannelTransformerWithPreCall(
      line, {createPacketAggregatorTransformer(4)}, {createPacketPrependTransformer(4)}));
  if (channel == nullptr || !channel->openWithTimeout(10.0, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  const auto answers = std::make_shared<Answers>();
  answers->manager = ZPKDataChannelManager::managerWithDataChannel(channel, answers);
  answers->manager->listen(&error);

  const auto question = ZPKDictionary::init({{"a", 2}, {"b", 0.5}});
  channel->write(ZPKDataDefaultSerializer::init()->serialize(question), &error);
  answers->ended.get_future().wait();
  answers->manager = nullptr;
}
