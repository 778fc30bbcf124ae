#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Utility/ZPKError.h"

namespace support {

/// One line that went to the log.
struct LogLine {
  int level;
  std::string text;

  friend bool operator==(const LogLine&, const LogLine&) = default;
};

/// Captures the log lines of the process during its lifetime. Only one may exist at a time.
class LogCapture {
 public:
  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  /// How many lines have exactly this text.
  size_t count(const std::string& text) const;
  void clear();

 private:
  mutable std::mutex _mutex;
  std::vector<LogLine> _lines;
};

}  // namespace support
