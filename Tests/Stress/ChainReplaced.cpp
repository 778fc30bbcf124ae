#include <atomic>
#include <mutex>
#include <thread>

#include "Data Stack/ZPKCommStack.h"
#include "Stress/Episodes.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/RunTogether.h"

namespace support {

namespace {

// Answers in memory, a few bytes per read. It has no lock: the stack must keep the threads apart.
class EchoInMemory final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return _isOpen = true; }
  bool close(ZPKErrorPtr*) override {
    _answer.clear();
    return _isOpen.exchange(false);
  }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return _isOpen; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    std::this_thread::yield();
    const std::string chunk = _answer.substr(0, 7);
    _answer.erase(0, chunk.size());
    return dataOf(chunk);
  }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr*) override {
    _answer += std::string(data->view()) + "> ";
    return true;
  }

 private:
  std::atomic<bool> _isOpen{true};
  std::string _answer;
};

class Replacement {
 public:
  explicit Replacement(Dice& dice) : _dice(dice), _stack(ZPKCommStack::init()) { replaceChain(); }

  void run() {
    const size_t rounds = 20 + _dice.below(200);
    _talking = 2;
    const auto talker = [&](size_t number) {
      return [this, number, rounds] { talk(number, rounds); };
    };
    std::vector<std::function<void()>> bodies = {talker(0), talker(1)};
    for (size_t others = 1 + _dice.below(3); others > 0; --others) {
      bodies.emplace_back([this, own = _dice.child()] { disturb(own); });
    }
    runTogether(bodies);
  }

 private:
  // An operation goes on with the chain that it has.
  void talk(size_t talker, size_t rounds) {
    for (size_t round = 0; round < rounds; ++round) {
      const std::string command = std::to_string(talker) + "-" + std::to_string(round);
      ZPKErrorPtr error;
      const auto answer = _stack->sendCommandString(command, 600, &error);
      const bool isWhole = answer == command + "\n> ";
      const bool isClosed = !answer.has_value() && error != nullptr && error->code() == 304;
      require(isWhole || isClosed, "a wrong answer: " + answer.value_or("none"), error);
    }
    --_talking;
  }

  void disturb(Dice dice) {
    while (_talking > 0) {
      disturbOnce(dice);
      dice.pause(std::chrono::microseconds(200));
    }
  }

  void disturbOnce(Dice& dice) {
    switch (dice.below(9)) {
      case 0: return _stack->setCommChannel(nullptr);
      case 1:
        return static_cast<void>(
            _stack->createStackWithBaseChannel(std::make_shared<EchoInMemory>()));
      case 2: return static_cast<void>(_stack->close());
      case 3: return static_cast<void>(_stack->openWithTimeout(1));
      case 4: return replaceParts();
      case 5: return _stack->setReadFilterTransformers(ZPKDataTransformerArray());
      case 6: return static_cast<void>(_stack->setLineTerminator("\n"));
      default: return replaceChain();
    }
  }

  void replaceChain() {
    ZPKCommStackPtr other = ZPKCommStack::init();
    require(other->createStackWithBaseChannel(std::make_shared<EchoInMemory>()), "no chain");
    _stack->setCommChannel(other->commChannel());
    other->setCommChannel(nullptr);  // it would close the chain at its end
  }

  void replaceParts() {
    _stack->setAggregator(ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf("> ")));
    _stack->setAppender(ZPKMutableDataAppendingTransformer::initWithDataToAppend(dataOf("\n")));
  }

  Dice& _dice;
  const ZPKCommStackPtr _stack;
  std::atomic<int> _talking{0};
};

}  // namespace

void chainReplaced(Dice& dice) { Replacement(dice).run(); }

}  // namespace support
