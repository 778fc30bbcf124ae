#pragma once

#include <string>

#include "Data Channel/ZPKDataChannel.h"
#include "Stress/Dice.h"
#include "Support/TemporaryFolder.h"
#include "Support/TransportPeer.h"

namespace support {

/// A transport with random layers, none of which changes the bytes of whole lines.
class RandomLayers {
 public:
  /// Wraps `transport`. Echoes are awaited, but the peer sends none.
  RandomLayers(Dice& dice, ZPKDataChannelPtr transport);

  const ZPKDataChannelPtr& top() const { return _top; }
  /// Whether each byte written takes a moment.
  bool isSlow() const { return _isSlow; }
  /// The layers, from the lowest, for a finding.
  const std::string& names() const { return _names; }
  /// Requires the logs, if there are any, to have exactly these bytes. Call after a close.
  void requireLogged(const std::string& read, const std::string& written) const;

 private:
  void addLayer(Dice& dice);
  void addLog(Dice& dice);

  const TemporaryFolder _folder;
  ZPKDataChannelPtr _top;
  std::string _names;
  bool _isSlow = false;
  bool _isActive = false;
  size_t _logs = 0;
};

/// A peer of any kind.
TransportPeer::Kind anyTransport(Dice& dice);

}  // namespace support
