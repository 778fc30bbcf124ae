#include <atomic>
#include <optional>

#include "Stress/AnsweringDevice.h"
#include "Stress/Episodes.h"
#include "Stress/ForeignSockets.h"
#include "Stress/Verdict.h"
#include "Support/RunTogether.h"
#include "Support/TemporaryFolder.h"
#include "ZephalConsole/Console.h"

namespace support {

namespace {

using zephal::Console;

constexpr std::string_view kNoise = "noise\n";

class ConsoleStorm {
 public:
  explicit ConsoleStorm(Dice& dice) : _dice(dice), _device(dice) {
    _device.device.liftExclusiveHold();
    zephal::ConsoleOptions options{.prompt = AnsweringDevice::kPrompt,
                                   .timeout = std::chrono::seconds(60)};
    if (dice.oneIn(2)) options.log = _folder.pathOf("log");
    if (dice.oneIn(2)) options.rawLog = _folder.pathOf("raw");
    _console.emplace(_device.device.url(), options);
  }

  void run() {
    _talking = 2;
    _rounds = 3 + _dice.below(20);
    const size_t disturbers = 1 + _dice.below(2);
    _busy = 2 + disturbers;
    std::vector<std::function<void()>> bodies = {[this, own = _dice.child()] { talk(own, 0); },
                                                 [this, own = _dice.child()] { talk(own, 1); },
                                                 [this, own = _dice.child()] { liftHold(own); }};
    for (size_t left = disturbers; left > 0; --left) {
      bodies.emplace_back([this, own = _dice.child()] { disturb(own); });
    }
    runTogether(bodies);
    _device.device.liftExclusiveHold();
    reopen();
    requireAnswer(_console->ask("last"), "last");
    _console->close();
    require(!_console->isOpen(), "open after a close");
  }

 private:
  // What the device says unasked stands in front of an answer. On a terminal, what is left of the
  // answer to a command that a close has ended arrives after the next open.
  void requireAnswer(std::string answer, const std::string& command) const {
    while (answer.starts_with(kNoise)) answer.erase(0, kNoise.size());
    const bool isTerminal = _console->url().starts_with("uart");
    require(isTerminal || answer == "<" + command + ">\n",
            "a wrong answer to " + command + ": " + answer);
  }

  void talk(Dice dice, size_t talker) {
    for (size_t round = 0; round < _rounds; ++round) {
      const std::string command = AnsweringDevice::command(talker, round);
      try {
        requireAnswer(_console->ask(command), command);
      } catch (const zephal::Cancelled&) {
      } catch (const zephal::Disconnected&) {
        reopen();
      }
      dice.pause(std::chrono::microseconds(500));
    }
    --_talking;
    --_busy;
  }

  // An ordinary user cannot open a terminal again whose hold has outlived a close.
  void liftHold(Dice dice) {
    while (_busy > 0) {
      _device.device.liftExclusiveHold();
      dice.pause(std::chrono::microseconds(2000));
    }
  }

  void reopen() {
    try {
      _console->reopen();
    } catch (const zephal::Cancelled&) {
    } catch (const zephal::Disconnected&) {
    }
  }

  void disturb(Dice dice) {
    while (_talking > 0) {
      dice.pause(std::chrono::microseconds(2000));
      const size_t choice = dice.below(8);
      if (choice == 0) _console->close();
      if (choice == 1) _console->cancel();
      if (choice == 2) reopen();
      if (choice == 3) _device.device.send(kNoise);
      if (choice > 3) require(_console->lost() == 0, "bytes were lost");
      _console->isOpen();
    }
    --_busy;
  }

  Dice& _dice;
  const TemporaryFolder _folder;
  AnsweringDevice _device;
  std::optional<Console> _console;
  size_t _rounds = 0;
  std::atomic<size_t> _talking{0};
  std::atomic<size_t> _busy{0};  // talkers and disturbers
};

}  // namespace

void consoleBesideClose(Dice& dice) {
  const ForeignSockets foreign(dice);
  ConsoleStorm(dice).run();
}

}  // namespace support
