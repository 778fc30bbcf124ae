#include "Peers/Contender.h"

#include "Peers/AsioPeer.h"
#include "Peers/ConsolePeer.h"
#include "Peers/GensioPeer.h"
#include "Peers/LibeventPeer.h"
#include "Peers/RawPeer.h"
#include "Peers/ZephalIOPeer.h"

namespace {

PeerFactory stacks(ZephalIOPeer::Kind kind) {
  return [kind](const Conversation& conversation) {
    return std::make_unique<ZephalIOPeer>(conversation, kind);
  };
}

PeerPtr openConsolePeer(const Conversation& conversation) {
  return std::make_unique<ConsolePeer>(conversation);
}

PeerPtr openRawPeer(const Conversation& conversation) {
  return std::make_unique<RawPeer>(conversation);
}

}  // namespace

const std::vector<Contender>& allContenders() {
  static const std::vector<Contender> contenders = {
      {"raw loop", openRawPeer},
      {"ZephalIO", stacks(ZephalIOPeer::Kind::Plain)},
      {"ZephalIO with reader", stacks(ZephalIOPeer::Kind::Reader)},
      {"ZephalIO with both logs", stacks(ZephalIOPeer::Kind::Logs)},
      {"ZephalConsole", openConsolePeer},
      {"Asio", openAsioPeer},
      {"gensio", openGensioPeer},
      {"libevent", openLibeventPeer},
      {"zephal, Python", nullptr},
      {"pexpect", nullptr},
      {"pexpect as it comes", nullptr},
      {"pyserial", nullptr, true},
  };
  return contenders;
}
