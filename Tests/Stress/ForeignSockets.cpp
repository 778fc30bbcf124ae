#include "Stress/ForeignSockets.h"

#include <vector>

#include "Stress/Verdict.h"
#include "Support/SocketPair.h"

namespace support {

namespace {

constexpr size_t kMostPairs = 4;

}  // namespace

ForeignSockets::ForeignSockets(Dice& dice) : _thread([this, own = dice.child()] { run(own); }) {}

ForeignSockets::~ForeignSockets() {
  _isOver = true;
  _thread.join();
}

void ForeignSockets::run(Dice dice) const {
  while (!_isOver) {
    std::vector<SocketPair> pairs(1 + dice.below(kMostPairs));
    for (const SocketPair& pair : pairs) pair.send("own");
    dice.pause(std::chrono::microseconds(500));
    for (SocketPair& pair : pairs) {
      require(pair.receive().empty(), "bytes at the wrong descriptor");
      std::swap(pair.ours, pair.peers);
      require(pair.receive() == "own", "a foreign descriptor was read");
    }
  }
}

}  // namespace support
