#pragma once

#include <ZephalConsole/Console.h>

#include <optional>
#include <string>

#include "Soak/Worker.h"

namespace soak {

/// Talks to a device through a console, and checks what it returns and both of its logs.
class ConsoleWorker final : public Worker {
 public:
  explicit ConsoleWorker(WorkerPlace place);

 private:
  void session() override;
  void release() override { _console.reset(); }

  bool open();
  void talk();
  bool mustGoOn() const;
  void command();
  void askOrExpect(char mode, const std::string& text, bool mayAsk);
  void expectPrompt(double timeout);
  void drain();
  void take(const std::string& response);
  void fail(const std::string& place, const zephal::Error& error);
  void checkLogs();

  std::optional<zephal::Console> _console;
  StreamChecker _checker;
  uint64_t _promptsDue = 0;
  bool _isBroken = false;
  bool _isCutDue = false;
  bool _mustRenew = false;
};

}  // namespace soak
