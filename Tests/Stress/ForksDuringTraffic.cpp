#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Stress/Episodes.h"
#include "Stress/NumberedBytes.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/LogFile.h"
#include "Support/OrdinaryUser.h"
#include "Support/RunTogether.h"
#include "Support/ScriptedChannel.h"
#include "Support/TemporaryFolder.h"
#include "ZephalLogging.h"

namespace support {

namespace {

constexpr const char* kChild = "child";

// A channel below that has no lock: what other threads do in it at a fork is not looked at.
class Nowhere final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override { return dataOf("read"); }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return true; }
};

class Forks {
 public:
  explicit Forks(Dice& dice)
      : _dice(dice),
        _channel(ZPILoggingChannel::initWithLogFilePath(_folder.pathOf("log"), "pre-",
                                                        std::make_shared<Nowhere>())) {
    _channel->setSynchronousLogging(dice.oneIn(3));
    require(_channel->openWithTimeout(1, nullptr), "the log cannot be opened");
  }

  void run() {
    const size_t forks = 1 + _dice.below(4);
    runTogether({[this, forks, own = _dice.child()] { forkOften(own, forks); },
                 [this, own = _dice.child()] { write(own); },
                 [this, own = _dice.child()] { read(own); },
                 [this, own = _dice.child()] { logLines(own); }, [this] { startThreads(); }});
    if (_channel != nullptr) require(_channel->close(nullptr), "the log cannot be closed");
    requireAll(forks);
  }

 private:
  void forkOften(Dice dice, size_t forks) {
    for (size_t number = 0; number < forks; ++number) {
      dice.pause(std::chrono::microseconds(2000));
      const size_t way = dice.below(3);
      const ChildResult result = runInChild([&](std::string*) { return liveAsChild(way); });
      require(result.status == 0, "a child ended with status " + std::to_string(result.status) +
                                      ", signal " + std::to_string(result.signal) + ", way " +
                                      std::to_string(way) + result.message);
    }
    _isOver = true;
  }

  // What a child may do with the channel of its parent.
  int liveAsChild(size_t way) {
    ZPKLoggingLog(ZPKLogGetAnchor(), 1, "line of a %s", kChild);
    _channel->logData(dataOf("line"), kChild);
    if (!_channel->write(dataOf("write"), nullptr)) return 1;
    if (way == 0) return 0;
    if (way == 1) return _channel->close(nullptr) ? 0 : 2;
    _channel.reset();
    return 0;
  }

  void write(Dice dice) {
    NumberedBytes bytes('w');
    while (!_isOver) {
      _channel->write(dataOf(bytes.take(NumberedBytes::kLineLength)), nullptr);
      ++_writes;
      dice.pause(std::chrono::microseconds(100));
    }
  }

  void read(Dice dice) {
    while (!_isOver) {
      _channel->readWithTimeout(0, nullptr);
      ++_reads;
      dice.pause(std::chrono::microseconds(100));
    }
  }

  void logLines(Dice dice) {
    while (!_isOver) {
      ZPKLoggingLog(ZPKLogGetAnchor(), 1, "line of a %s", "parent");
      if (dice.oneIn(20)) ZPKLoggingSetSink([](int, std::string_view) {});
      dice.pause(std::chrono::microseconds(50));
    }
  }

  // A thread's first chunk takes locks that later ones do not take.
  void startThreads() {
    while (!_isOver) {
      std::thread([this] { _channel->logData(dataOf("line"), "short"); }).join();
    }
  }

  void requireAll(size_t forks) const {
    const std::string own = std::to_string(::getpid());
    std::string written;
    size_t reads = 0;
    std::set<std::string> children;
    for (const LogFileLine& line : linesOfLog(_folder.pathOf("log"))) {
      if (line.process != own) children.insert(line.process);
      if (line.process == own && line.identifier == "pre--write") written += line.text;
      if (line.process == own && line.identifier == "pre---read") ++reads;
    }
    require(children.size() == forks, "a child has not logged");
    require(reads == _reads, "reads were lost or doubled");
    std::string expected = NumberedBytes('w').take(_writes * NumberedBytes::kLineLength);
    std::erase(expected, '\n');
    require(written == expected, "writes were lost or doubled");
  }

  Dice& _dice;
  const TemporaryFolder _folder;
  std::shared_ptr<ZPILoggingChannel> _channel;
  std::atomic<bool> _isOver{false};
  size_t _writes = 0;
  size_t _reads = 0;
};

}  // namespace

void forksDuringTraffic(Dice& dice) {
  if (canChildAlwaysAllocate()) Forks(dice).run();
}

}  // namespace support
