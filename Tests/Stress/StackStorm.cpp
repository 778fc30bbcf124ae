#include <atomic>
#include <thread>

#include "Data Stack/ZPKCommStack.h"
#include "Stress/AnsweringDevice.h"
#include "Stress/Episodes.h"
#include "Stress/ForeignSockets.h"
#include "Stress/Verdict.h"
#include "Support/RunTogether.h"
#include "Support/TemporaryFolder.h"

namespace support {

namespace {

// The device answers everything: no answer within this time is a finding.
constexpr int kLimit = 60;

class Storm {
 public:
  explicit Storm(Dice& dice) : _dice(dice), _device(dice), _stack(ZPKCommStack::init()) {
    _stack->setDelimiter(AnsweringDevice::kPrompt);
    _stack->setActiveChannelOnOff(dice.oneIn(2));
    if (dice.oneIn(2)) _stack->setLogFilePath(_folder.pathOf("post"));
    if (dice.oneIn(2)) _stack->setPreAggregatorLogFilePath(_folder.pathOf("pre"));
  }

  void run() {
    _rounds = 5 + _dice.below(40);
    const size_t talkers = 1 + _dice.below(3);
    _talking = talkers;
    std::vector<std::function<void()>> bodies;
    for (size_t talker = 0; talker < talkers; ++talker) {
      bodies.emplace_back([this, talker, own = _dice.child()] { talk(own, talker); });
    }
    for (size_t others = 1 + _dice.below(3); others > 0; --others) {
      bodies.emplace_back([this, own = _dice.child()] { disturb(own); });
    }
    runTogether(bodies);
    mustWork();
  }

 private:
  void talk(Dice dice, size_t talker) {
    for (size_t round = 0; round < _rounds; ++round) {
      const std::string command = AnsweringDevice::command(talker, round);
      ZPKErrorPtr error;
      const auto answer = _stack->sendCommandString(command, kLimit, &error);
      if (answer.has_value()) {
        require(answer == AnsweringDevice::answer(command), "a wrong answer: " + *answer);
      } else {
        require(error != nullptr && error->code() == 304, "no answer", error);
        open();
      }
      dice.pause(std::chrono::microseconds(300));
    }
    --_talking;
  }

  void open() {
    _device.device.liftExclusiveHold();
    if (_stack->openWithTimeout(std::nullopt)) return;
    if (_stack->commChannel() == nullptr) _stack->createStackWithURL(_device.device.url());
  }

  // Nothing of this changes an answer.
  void disturb(Dice dice) {
    while (_talking > 0) {
      disturbOnce(dice);
      dice.pause(std::chrono::microseconds(1000));
    }
  }

  void disturbOnce(Dice& dice) {
    switch (dice.below(10)) {
      case 0: return static_cast<void>(_stack->close());
      case 1: return static_cast<void>(_stack->createStackWithURL(_device.device.url()));
      case 2: return open();
      case 3: return static_cast<void>(_stack->setDelimiter(AnsweringDevice::kPrompt));
      case 4: return static_cast<void>(_stack->setLineTerminator("\n"));
      case 5: return _stack->setActiveChannelOnOff(dice.oneIn(2));
      case 6: return _stack->setEcidSwapInformation(std::nullopt);
      case 7: return _stack->setLogFilePath(_folder.pathOf("post" + std::to_string(dice.below(3))));
      case 8: return look();
      default: return static_cast<void>(_stack->setTimeoutIsException(1, nullptr));
    }
  }

  void look() const {
    _stack->isOpen();
    require(_stack->aggregator() != nullptr && _stack->appender() != nullptr, "a part is missing");
    require(_stack->timeoutIsException(), "a timeout is no exception");
    const auto path = _stack->logFilePath();
    require(!path.has_value() || path->starts_with(_folder.path()), "a path is torn");
    if (const auto chain = _stack->commChannel()) chain->isOpened();
  }

  void mustWork() {
    if (_stack->isOpen() != 0) require(_stack->close(), "cannot be closed");
    ZPKErrorPtr error;
    _stack->createStackWithURL(_device.device.url(), &error);
    _device.device.liftExclusiveHold();
    require(_stack->openWithTimeout(std::nullopt, &error), "cannot be opened", error);
    const auto answer = _stack->sendCommandString("last", kLimit, &error);
    require(answer == AnsweringDevice::answer("last"), "no last answer", error);
    require(_stack->close(&error), "cannot be closed", error);
  }

  Dice& _dice;
  const TemporaryFolder _folder;
  AnsweringDevice _device;
  const ZPKCommStackPtr _stack;
  size_t _rounds = 0;
  std::atomic<size_t> _talking{0};
};

}  // namespace

void stackStorm(Dice& dice) {
  const ForeignSockets foreign(dice);
  Storm(dice).run();
}

}  // namespace support
