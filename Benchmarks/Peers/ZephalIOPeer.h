#pragma once

#include <ZephalIO/ZephalIO.h>

#include "Peers/Peer.h"

/// A stack, as README uses it.
class ZephalIOPeer final : public Peer {
 public:
  enum class Kind { Plain, Reader, Logs };  // Reader: in the background; Logs: both

  ZephalIOPeer(const Conversation& conversation, Kind kind);
  ~ZephalIOPeer() override;

  void write(std::string_view command) override;
  size_t readResponse() override;
  /// Waits until the logs' threads have written, and empties the logs.
  void finish() override;

 private:
  void setLogs();

  ZPKCommStackPtr _stack = ZPKCommStack::init();
  std::string _folder;  // of the logs; empty without
};
