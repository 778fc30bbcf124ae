#include <atomic>
#include <memory>
#include <string_view>
#include <vector>

#include "Stress/Episodes.h"
#include "Stress/Verdict.h"
#include "Support/RunTogether.h"
#include "ZephalLogging.h"

namespace support {

namespace {

// Counts the lines that reach it, until it has been replaced.
struct CountingSink {
  std::atomic<bool> isReplaced{false};
  std::atomic<size_t> lines{0};
};

// Never changes back to standard error, where nobody counts.
class ChangingSinks {
 public:
  explicit ChangingSinks(Dice& dice) : _dice(dice) { setSink(); }

  void run() {
    const size_t threads = 1 + _dice.below(4);
    const size_t lines = 1 + _dice.below(300);
    _logging = threads;
    std::vector<std::function<void()>> bodies = {[this, own = _dice.child()] { change(own); }};
    for (size_t thread = 0; thread < threads; ++thread) {
      bodies.emplace_back([this, lines, own = _dice.child()] { log(own, lines); });
    }
    runTogether(bodies);
    ZPKLoggingSetSink([](int, std::string_view) {});
    size_t sum = 0;
    for (const auto& sink : _sinks) sum += sink->lines;
    require(sum == threads * lines, "lines were lost or doubled");
  }

 private:
  void setSink() {
    const auto sink = std::make_shared<CountingSink>();
    const auto former = _sinks.empty() ? nullptr : _sinks.back();
    _sinks.push_back(sink);
    ZPKLoggingSetSink([sink](int level, std::string_view line) {
      require(!sink->isReplaced, "a sink was called after it had been replaced");
      require(level == 1 && line == "line of a thread", "a torn line");
      ++sink->lines;
    });
    if (former != nullptr) former->isReplaced = true;
  }

  void log(Dice dice, size_t lines) {
    for (size_t line = 0; line < lines; ++line) {
      ZPKLoggingLog(ZPKLogGetAnchor(), 1, "line of a %s", "thread");
      dice.pause(std::chrono::microseconds(50));
    }
    --_logging;
  }

  void change(Dice dice) {
    while (_logging > 0) {
      setSink();
      dice.pause(std::chrono::microseconds(300));
    }
  }

  Dice& _dice;
  std::vector<std::shared_ptr<CountingSink>> _sinks;
  std::atomic<size_t> _logging{0};
};

}  // namespace

void sinkChanges(Dice& dice) { ChangingSinks(dice).run(); }

}  // namespace support
