#pragma once

#include <ZephalIO/ZephalIO.h>

#include <memory>
#include <optional>
#include <string>

#include "Soak/LogContent.h"
#include "Soak/Worker.h"

namespace soak {

/// Which layers a stack has.
struct StackLayers {
  bool hasReader = false;
  bool hasLogs = false;
  bool hasFilter = false;
  /// The device echoes, and the stack removes that.
  bool removesEcho = false;
  /// The device echoes, and a channel below the stack removes that.
  bool hasEchoChannel = false;
  /// A pause before each character.
  bool hasDelay = false;
};

/// Sends commands over a ZPKCommStack, in all of the ways in which that is possible, and checks
/// every byte that comes back and everything in its logs.
class StackWorker final : public Worker {
 public:
  StackWorker(WorkerPlace place, StackLayers layers);

 private:
  void session() override;
  void release() override;

  bool open();
  bool create(ZPKErrorPtr* error);
  bool configure();
  ZPKDataChannelPtr baseChannel(ZPKErrorPtr* error) const;
  void talk();
  bool mustGoOn() const;
  void command();
  bool write(const std::string& text, ZPKErrorPtr* error);
  ZPKDataPtr exchange(const std::string& text, double timeout, ZPKErrorPtr* error);
  ZPKDataPtr exchangeWithEcho(const std::string& text, double timeout, ZPKErrorPtr* error);
  void take(const ZPKDataPtr& response);
  void fail(std::string_view place, const ZPKErrorPtr& error);
  void drain();
  void reportMissing();
  void close();
  void checkLogs();
  void checkLog(std::string_view name, const LogContent& content);

  const StackLayers _layers;
  ZPKCommStackPtr _stack;
  std::optional<StreamChecker> _checker;
  uint64_t _linesReceived = 0;
  uint64_t _promptsDue = 0;
  bool _isBroken = false;
  bool _isUnwritten = false;
  bool _isCutDue = false;
  bool _mustRenew = false;
};

}  // namespace soak
