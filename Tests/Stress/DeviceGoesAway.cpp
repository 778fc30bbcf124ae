#include <atomic>

#include "Data Stack/ZPKCommStack.h"
#include "Stress/AnsweringDevice.h"
#include "Stress/Episodes.h"
#include "Stress/ForeignSockets.h"
#include "Stress/Verdict.h"
#include "Support/RunTogether.h"
#include "Support/TemporaryFolder.h"

namespace support {

namespace {

class Reconnection {
 public:
  explicit Reconnection(Dice& dice) : _dice(dice), _device(dice), _stack(ZPKCommStack::init()) {
    _stack->setDelimiter(AnsweringDevice::kPrompt);
    _stack->setActiveChannelOnOff(dice.oneIn(2));
    if (dice.oneIn(2)) _stack->setLogFilePath(_folder.pathOf("post"));
    if (dice.oneIn(2)) _stack->setPreAggregatorLogFilePath(_folder.pathOf("pre"));
  }

  void run() {
    const size_t losses = 1 + _dice.below(4);
    runTogether({[this, own = _dice.child()] { talk(own, 0); },
                 [this, own = _dice.child()] { talk(own, 1); },
                 [this, losses, own = _dice.child()] { goAway(own, losses); }});
    require(reconnect(), "cannot be opened again");
    ZPKErrorPtr error;
    const auto answer = _stack->sendCommandString("last", 60, &error);
    require(answer == AnsweringDevice::answer("last"), "no last answer", error);
    require(_stack->close(&error), "cannot be closed", error);
  }

 private:
  // With a device that goes away any command may fail, but an answer is the right one: each
  // connection has a chain of its own.
  void talk(Dice dice, size_t talker) {
    for (size_t number = 0; !_isOver; ++number) {
      const std::string command = AnsweringDevice::command(talker, number);
      const auto answer = _stack->sendCommandString(command, 60);
      if (answer.has_value()) {
        require(answer == AnsweringDevice::answer(command), "a wrong answer: " + *answer);
      } else if (talker == 0) {
        reconnect();
      }
      dice.pause(std::chrono::microseconds(500));
    }
  }

  // A failed write leaves the stack open.
  bool reconnect() {
    _stack->close();
    _device.device.liftExclusiveHold();
    return _stack->createStackWithURL(_device.device.url()) &&
           _stack->openWithTimeout(std::nullopt);
  }

  void goAway(Dice dice, size_t losses) {
    SimulatedDevice& device = _device.device;
    for (; losses > 0; --losses) {
      dice.pause(std::chrono::microseconds(20000));
      if (dice.oneIn(3)) device.resetConnection();
      device.powerOff();
      dice.pause(std::chrono::microseconds(3000));
      device.powerOn();
    }
    _isOver = true;
  }

  Dice& _dice;
  const TemporaryFolder _folder;
  AnsweringDevice _device;
  const ZPKCommStackPtr _stack;
  std::atomic<bool> _isOver{false};
};

}  // namespace

void deviceGoesAway(Dice& dice) {
  const ForeignSockets foreign(dice);
  Reconnection(dice).run();
}

}  // namespace support
