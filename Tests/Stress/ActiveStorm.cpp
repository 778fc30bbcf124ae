#include <atomic>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Stress/AnsweringDevice.h"
#include "Stress/Episodes.h"
#include "Stress/ForeignSockets.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/RunTogether.h"

namespace support {

namespace {

class OpeningAndClosing {
 public:
  explicit OpeningAndClosing(Dice& dice)
      : _dice(dice), _device(dice), _isNull(dice.oneIn(3)), _channel(active()) {}

  void run() {
    const size_t rounds = 3 + _dice.below(30);
    std::vector<std::function<void()>> bodies;
    for (size_t threads = 2 + _dice.below(3); threads > 0; --threads) {
      bodies.emplace_back([this, rounds, own = _dice.child()] { storm(own, rounds); });
    }
    runTogether(bodies);
    mustWork();
  }

 private:
  ZPKDataChannelPtr active() const {
    const auto transport = createBaseChannelWithTransport(_device.device.url());
    return _isNull ? createActiveNullChannel(transport) : createActiveChannel(transport);
  }

  // Each of these holds the channel's lock from start to end.
  void storm(Dice dice, size_t rounds) {
    for (; rounds > 0; --rounds) {
      ZPKErrorPtr error;
      switch (dice.below(5)) {
        case 0:
        case 1: open(); break;
        case 2: requireCode(_channel->close(&error), error, 2); break;
        case 3: requireCode(_channel->reset(&error), error, 1); break;
        default: _channel->isOpened();
      }
      dice.pause(std::chrono::microseconds(2000));
    }
  }

  // False if it was open, if another thread has closed it since, and for an ordinary user if that
  // thread has left the hold of a terminal behind.
  void open() {
    _device.device.liftExclusiveHold();
    ZPKErrorPtr error;
    const bool isOpen = _channel->openWithTimeout(1, &error);
    const bool isHeld = error != nullptr && error->code() == 4;
    requireCode(isOpen || error == nullptr || isHeld, error, 1);
  }

  static void requireCode(bool hasSucceeded, const ZPKErrorPtr& error, int code) {
    require(hasSucceeded || (error != nullptr && error->code() == code), "a wrong error", error);
  }

  void mustWork() {
    ZPKErrorPtr error;
    if (_channel->isOpened()) require(_channel->close(&error), "cannot be closed", error);
    require(_channel->reset(&error), "cannot be reset", error);
    _device.device.liftExclusiveHold();
    require(_channel->openWithTimeout(1, &error), "cannot be opened", error);
    if (!_isNull) mustTalk();
    require(_channel->close(&error), "cannot be closed", error);
  }

  void mustTalk() {
    require(_channel->write(dataOf("last\n")), "cannot be written to");
    std::string answer;
    while (!answer.ends_with(AnsweringDevice::answer("last"))) {
      ZPKErrorPtr error;
      const auto data = _channel->readWithTimeout(60, &error);
      require(data != nullptr && data->length() > 0, "no answer", error);
      answer += data->view();
    }
  }

  Dice& _dice;
  AnsweringDevice _device;
  const bool _isNull;
  const ZPKDataChannelPtr _channel;
};

}  // namespace

void activeStorm(Dice& dice) {
  const ForeignSockets foreign(dice);
  OpeningAndClosing(dice).run();
}

}  // namespace support
