#include <termios.h>

#include <atomic>
#include <limits>
#include <thread>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Stress/Episodes.h"
#include "Stress/FarEnd.h"
#include "Stress/ForeignSockets.h"
#include "Stress/RandomLayers.h"
#include "Stress/Verdict.h"
#include "Support/Bytes.h"
#include "Support/RunTogether.h"

namespace support {

namespace {

// More than there is time for.
constexpr size_t kEndless = std::numeric_limits<size_t>::max();

// A read or write that a close meets fails in one of these ways.
void requireEnding(const ZPKErrorPtr& error) {
  const bool isAllowed = error == nullptr || error->code() == 2 || error->code() == 5;
  require(isAllowed, "a wrong error after a close", error);
}

void readUntilClosed(ZPKDataChannel& channel, Dice dice, bool mayWait) {
  NumberedBytes bytes(FarEnd::kSent);
  const double timeouts[] = {0, 0.001, 0.05, mayWait ? ZEPHAL_COMMUNICATION_TIME_FOREVER : 0.02};
  for (;;) {
    ZPKErrorPtr error;
    const auto data = channel.readWithTimeout(timeouts[dice.below(4)], &error);
    if (data == nullptr) return requireEnding(error);
    bytes.expect(data->view(), "read before a close");
    dice.pause(std::chrono::microseconds(200));
  }
}

void writeUntilClosed(ZPKDataChannel& channel, Dice dice) {
  NumberedBytes bytes(FarEnd::kReceived);
  for (;;) {
    ZPKErrorPtr error;
    if (!channel.write(dataOf(bytes.take(1 + dice.below(5000))), &error)) {
      return requireEnding(error);
    }
    dice.pause(std::chrono::microseconds(200));
  }
}

// An active channel may be closed by several threads, and one of them closes it.
void closeInAMoment(ZPKDataChannel& channel, Dice dice, std::atomic<int>& closes) {
  std::this_thread::sleep_for(std::chrono::microseconds(dice.below(15000)));
  ZPKErrorPtr error;
  if (channel.close(&error)) ++closes;
  require(!channel.isOpened(), "open after a close");
}

// A terminal's bytes outlive a close, at both ends.
void discardUnread(const TransportPeer& peer) {
  ::tcflush(peer.nearEnd(), TCIOFLUSH);
  ::tcflush(peer.descriptor(), TCIOFLUSH);
}

// A read of a terminal ends only when its time is up.
void openTalkAndClose(Dice& dice, TransportPeer& peer, const ZPKDataChannelPtr& channel,
                      bool isActive, bool isTerminal) {
  require(peer.open(channel), "cannot be opened");
  std::atomic<int> closes{0};
  {
    const FarEnd farEnd(dice, peer.descriptor(), dice.oneIn(4) ? 0 : kEndless);
    const auto close = [&, own = dice.child()] { closeInAMoment(*channel, own, closes); };
    std::vector<std::function<void()>> bodies = {
        [&, own = dice.child()] { readUntilClosed(*channel, own, isActive || !isTerminal); },
        [&, own = dice.child()] { writeUntilClosed(*channel, own); }, close};
    if (isActive) bodies.push_back(close);
    runTogether(bodies);
  }
  require(closes == 1, "closed " + std::to_string(closes) + " times");
  require(channel->reset(), "cannot be reset");
}

}  // namespace

void closeBesideReadAndWrite(Dice& dice) {
  const ForeignSockets foreign(dice);
  const bool isActive = dice.oneIn(2);
  const auto kind = anyTransport(dice);
  TransportPeer peer(kind);
  auto channel = peer.makeChannel();
  if (isActive) channel = createActiveChannel(channel);
  for (size_t left = peer.canReopen() ? 1 + dice.below(5) : 1; left > 0; --left) {
    const bool isTerminal = kind == TransportPeer::Kind::kTerminal;
    if (isTerminal) discardUnread(peer);
    openTalkAndClose(dice, peer, channel, isActive, isTerminal);
  }
}

}  // namespace support
