#include <atomic>
#include <memory>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Data Channel/ZPKDataChannelManager.h"
#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Stress/Episodes.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/EventWait.h"
#include "Support/Managers.h"
#include "Support/RunTogether.h"
#include "Support/SocketPair.h"
#include "Utility/ZPKNumber.h"

namespace support {

namespace {

// What all delegates of a manager have seen.
struct Seen {
  std::atomic<int64_t> last{-1};
  std::atomic<size_t> messages{0};
  std::atomic<size_t> ends{0};
};

class Watcher final : public ZPKDataChannelManagerDelegate {
 public:
  explicit Watcher(std::shared_ptr<Seen> seen) : _seen(std::move(seen)) {}

  void didReceiveMessage(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                         const ZPKObjectPtr& message) override {
    const auto number = ZPKObjectCast<ZPKNumber>(message);
    require(number != nullptr && manager != nullptr && channel != nullptr, "a wrong message");
    const int64_t value = number->integerValue();
    require(value > _seen->last, "objects out of order");
    _seen->last = value;
    ++_seen->messages;
    ++_received;
  }
  void didDisconnect(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
                     const ZPKErrorPtr& error) override {
    require(error == nullptr, "an error at the end", error);
    ++_seen->ends;
  }

 private:
  const std::shared_ptr<Seen> _seen;
  size_t _received = 0;  // plain: one call at a time
};

class Delivery {
 public:
  explicit Delivery(Dice& dice)
      : _dice(dice),
        _channel(chainOn(createActiveTCPChannelWithSocket(_pair.takeOurs()))),
        _peer(createChannelTransformer(createActiveTCPChannelWithSocket(_pair.takePeers()), {},
                                       {createPacketPrependTransformer(2)})) {}

  void run() {
    auto delegate = std::make_shared<Watcher>(_seen);
    _delegate = delegate;
    _manager = makeManager(_channel, delegate, kDetached);
    delegate = nullptr;
    require(_manager->listen(), "does not listen");
    const size_t count = 1 + _dice.below(300);
    runTogether({[this, count, own = _dice.child()] { send(own, count); },
                 [this, own = _dice.child()] { vanish(own); },
                 [this, own = _dice.child()] { look(own); }});
    end();
    require(_seen->messages <= count && _seen->ends <= 1, "more than was sent");
  }

 private:
  static ZPKDataChannelPtr chainOn(const ZPKDataChannelPtr& transport) {
    return createPassiveChannel(createChannelTransformerWithPreCall(
        createActiveChannel(transport), {createPacketAggregatorTransformer(2)}, {}));
  }

  void send(Dice dice, size_t count) {
    for (size_t number = 0; number < count && !_isDisconnected; ++number) {
      const auto object = archive(ZPKValue(static_cast<int64_t>(number)));
      if (!_peer->write(object)) break;
      dice.pause(std::chrono::microseconds(200));
    }
    _isSent = true;
  }

  void vanish(Dice dice) {
    while (!_isSent) {
      if (dice.oneIn(3)) _delegate = nullptr;
      dice.pause(std::chrono::microseconds(300));
      auto next = std::make_shared<Watcher>(_seen);
      if (dice.oneIn(5)) _manager->setDelegate(nullptr);
      _manager->setDelegate(next);
      _delegate = next;
      if (dice.oneIn(50)) disconnect();
    }
  }

  void disconnect() {
    _manager->disconnect();
    _isDisconnected = true;
  }

  void look(Dice dice) const {
    while (!_isSent) {
      _manager->started();
      if (const auto delegate = _manager->delegate()) delegate->implements({});
      _manager->setDeserializer(ZPKDataDefaultSerializer::init());
      require(_manager->dataChannel() == _channel, "another channel");
      require(!_manager->description().empty(), "no description");
      dice.pause(std::chrono::microseconds(300));
    }
  }

  // The loop holds the manager until it ends.
  void end() {
    const bool isHungUp = _dice.oneIn(2);
    if (isHungUp) {
      require(_peer->close(), "the peer cannot be closed");
    } else {
      disconnect();
    }
    const std::weak_ptr<ZPKDataChannelManager> manager = _manager;
    _manager = nullptr;
    require(waitFor([&] { return manager.expired(); }), "the loop does not end");
    if (_peer->isOpened()) _peer->close();
    if (_channel->isOpened()) _channel->close();
  }

  Dice& _dice;
  SocketPair _pair;
  const ZPKDataChannelPtr _channel;
  const ZPKDataChannelPtr _peer;
  const std::shared_ptr<Seen> _seen = std::make_shared<Seen>();
  ZPKDataChannelManagerDelegatePtr _delegate;  // only the thread that lets it vanish has it
  ZPKDataChannelManagerPtr _manager;
  std::atomic<bool> _isSent{false};
  std::atomic<bool> _isDisconnected{false};
};

}  // namespace

void delegatesVanish(Dice& dice) { Delivery(dice).run(); }

}  // namespace support
