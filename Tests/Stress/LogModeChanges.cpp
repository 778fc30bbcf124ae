#include <atomic>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Stress/Episodes.h"
#include "Stress/NumberedBytes.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/LogFile.h"
#include "Support/RunTogether.h"
#include "Support/ScriptedChannel.h"
#include "Support/TemporaryFolder.h"

namespace support {

namespace {

class ChangingLog {
 public:
  explicit ChangingLog(Dice& dice) : _dice(dice) {
    const size_t channels = 1 + dice.below(2);
    for (size_t i = 0; i < channels; ++i) {
      const auto below = ScriptedChannel::make();
      below->setOpened(false);
      _channels.push_back(
          ZPILoggingChannel::initWithLogFilePath(path(), std::to_string(i) + "-", below));
      require(_channels.back()->openWithTimeout(1, nullptr), "a log cannot be opened");
    }
  }

  void run() {
    std::vector<std::function<void()>> bodies = {[this, own = _dice.child()] { change(own); }};
    _lines = 20 + _dice.below(300);
    _writing = 2 * _channels.size();
    for (const auto& channel : _channels) {
      bodies.emplace_back([this, &channel, own = _dice.child()] { write(own, *channel); });
      bodies.emplace_back([this, &channel, own = _dice.child()] { log(own, *channel); });
    }
    runTogether(bodies);
    for (const auto& channel : _channels) require(channel->close(nullptr), "cannot be closed");
    requireAll();
  }

 private:
  std::string path() const { return _folder.pathOf("log"); }

  void write(Dice dice, ZPILoggingChannel& channel) {
    NumberedBytes bytes('w');
    for (size_t line = 0; line < _lines; ++line) {
      require(channel.write(dataOf(bytes.take(NumberedBytes::kLineLength)), nullptr), "no write");
      dice.pause(std::chrono::microseconds(100));
    }
    --_writing;
  }

  void log(Dice dice, ZPILoggingChannel& channel) {
    NumberedBytes bytes('r');
    for (size_t line = 0; line < _lines; ++line) {
      const auto name = &channel == _channels.front().get() ? "first" : "second";
      channel.logData(dataOf(bytes.take(NumberedBytes::kLineLength)), name);
      dice.pause(std::chrono::microseconds(100));
    }
    --_writing;
  }

  void change(Dice dice) {
    while (_writing > 0) {
      const auto& channel = _channels[dice.below(_channels.size())];
      channel->setSynchronousLogging(dice.oneIn(2));
      require(channel->fileHandle() != nullptr, "no file");
      dice.pause(std::chrono::microseconds(500));
    }
  }

  void requireAll() const {
    const auto expected = [this](char kind) {
      std::string text = NumberedBytes(kind).take(_lines * NumberedBytes::kLineLength);
      std::erase(text, '\n');
      return text;
    };
    for (size_t i = 0; i < _channels.size(); ++i) {
      const std::string written = joinedTextOfLog(path(), std::to_string(i) + "--write");
      require(written == expected('w'), "the log has other writes");
      const std::string logged = joinedTextOfLog(path(), i == 0 ? "first" : "second");
      require(logged == expected('r'), "the log has other reads");
    }
  }

  Dice& _dice;
  const TemporaryFolder _folder;
  std::vector<std::shared_ptr<ZPILoggingChannel>> _channels;
  size_t _lines = 0;
  std::atomic<size_t> _writing{0};
};

}  // namespace

void logModeChanges(Dice& dice) { ChangingLog(dice).run(); }

}  // namespace support
