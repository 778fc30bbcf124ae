#pragma once

#include <ZephalConsole/Console.h>

#include "Peers/Peer.h"

/// A zephal::Console: commands are asked, and anything longer is sent and expected.
class ConsolePeer final : public Peer {
 public:
  explicit ConsolePeer(const Conversation& conversation);

  void write(std::string_view command) override;
  size_t readResponse() override;

 private:
  const bool _asks;
  const zephal::Pattern _delimiter;
  zephal::Console _console;
  std::string _command;  // to be asked
};
