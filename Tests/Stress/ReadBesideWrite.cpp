#include <algorithm>
#include <atomic>

#include "Stress/Episodes.h"
#include "Stress/FarEnd.h"
#include "Stress/RandomLayers.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/RunTogether.h"

namespace support {

namespace {

constexpr size_t kLine = NumberedBytes::kLineLength;

class ReadAndWrite {
 public:
  explicit ReadAndWrite(Dice& dice)
      : _dice(dice), _kind(anyTransport(dice)), _peer(_kind), _layers(dice, _peer.makeChannel()) {}

  void run() {
    require(_peer.open(_layers.top()), "cannot be opened; " + _layers.names());
    const size_t readSize = kLine * (1 + _dice.below(2000));
    const size_t writeSize = kLine * (1 + _dice.below(_layers.isSlow() ? 20 : 2000));
    {
      FarEnd farEnd(_dice, _peer.descriptor(), readSize);
      runTogether({[this, readSize, own = _dice.child()] { read(own, readSize); },
                   [this, writeSize, own = _dice.child()] { write(own, writeSize); },
                   [this] { look(); }});
      require(farEnd.waitForReceived(writeSize), "not all arrived; " + _layers.names());
    }
    close(readSize, writeSize);
  }

 private:
  void read(Dice dice, size_t size) {
    NumberedBytes bytes(FarEnd::kSent);
    const double timeouts[] = {0, 0.001, 0.05, 5, ZEPHAL_COMMUNICATION_TIME_FOREVER};
    while (bytes.count() < size) {
      ZPKErrorPtr error;
      const auto data = _layers.top()->readWithTimeout(timeouts[dice.below(5)], &error);
      require(data != nullptr, "a read failed; " + _layers.names(), error);
      bytes.expect(data->view(), _layers.names().c_str());
      if (dice.oneIn(4)) dice.pause(std::chrono::microseconds(500));
    }
    ++_ended;
  }

  void write(Dice dice, size_t size) {
    NumberedBytes bytes(FarEnd::kReceived);
    while (bytes.count() < size) {
      const size_t count = std::min(size - bytes.count(), 1 + dice.below(2000));
      ZPKErrorPtr error;
      const bool isWritten = _layers.top()->write(dataOf(bytes.take(count)), &error);
      require(isWritten, "a write failed; " + _layers.names(), error);
      if (dice.oneIn(4)) dice.pause(std::chrono::microseconds(500));
    }
    ++_ended;
  }

  void look() const {
    while (_ended < 2) {
      require(_layers.top()->isOpened(), "not open; " + _layers.names());
      Dice(_ended).pause(std::chrono::microseconds(500));
    }
  }

  void close(size_t readSize, size_t writeSize) {
    ZPKErrorPtr error;
    require(_layers.top()->close(&error), "cannot be closed; " + _layers.names(), error);
    require(_layers.top()->reset(&error), "cannot be reset; " + _layers.names(), error);
    // Nobody opened the logs on a socket that was open from the start.
    if (_kind == TransportPeer::Kind::kAdopted) return;
    _layers.requireLogged(NumberedBytes(FarEnd::kSent).take(readSize),
                          NumberedBytes(FarEnd::kReceived).take(writeSize));
  }

  Dice& _dice;
  const TransportPeer::Kind _kind;
  TransportPeer _peer;
  RandomLayers _layers;
  std::atomic<unsigned> _ended{0};
};

}  // namespace

void readBesideWrite(Dice& dice) { ReadAndWrite(dice).run(); }

}  // namespace support
