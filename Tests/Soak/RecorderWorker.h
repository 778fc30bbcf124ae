#pragma once

#include <ZephalIO/ZephalIO.h>

#include "Soak/Worker.h"

namespace soak {

/// Records a device that talks unasked with a ZPKCommLoggerStack, and checks both logs.
class RecorderWorker final : public Worker {
 public:
  using Worker::Worker;

 private:
  void session() override;
  void release() override { _stack.reset(); }

  bool open();
  bool configure();
  void record();
  void awaitSilence();
  void checkLogs();
  StreamChecker checkedLog(std::string_view name);

  ZPKCommLoggerStackPtr _stack;
  bool _isCut = false;
  bool _isSilent = false;
  bool _mustRenew = false;
};

}  // namespace soak
