#pragma once

#include <string>
#include <vector>

#include "Peers/Peer.h"

/// The process of one peer: does what is asked on standard input, one line each, and answers each
/// with a line on standard output. python_peers speaks the same protocol.
///
///     (at the start)             ready | missing PACKAGE | unsuited REASON
///     ask COUNT LENGTH COMMAND   sends the command COUNT times, each time with a response of
///     LENGTH read COUNT LENGTH COMMAND  sends it once, for COUNT responses hold COUNT opens COUNT
///     more connections, with a ping each, and keeps them
///
/// The first two answer with the seconds of processor time and on the clock, the last with the
/// bytes of private memory that each connection added, and 0. "failed REASON" ends the process.
class PeerWorker {
 public:
  PeerWorker(PeerFactory open, Conversation conversation);

  /// Works until standard input ends.
  void run();

 private:
  void work(const std::string& line);
  void measure(size_t commands, size_t responses, size_t length, const std::string& command);
  void hold(size_t count);

  PeerFactory _open;
  Conversation _conversation;
  PeerPtr _peer;
  std::vector<PeerPtr> _held;
};
