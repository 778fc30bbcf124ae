#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "ZephalConsole/Internal/TrafficLog.h"

namespace zephal::internal {

/// A log with one entry for each line, however the bytes arrive. A line without an end, such as a
/// prompt, is written with the next write, and at the latest when it exceeds 4 KiB.
class LineLog {
 public:
  explicit LineLog(TrafficLog log) : _log(std::move(log)) {}

  void open(const std::string& url) { _log.open(url); }
  void close();
  void read(std::string_view bytes);
  void wrote(std::string_view line);
  /// Writes the line that has begun.
  void flush();

 private:
  TrafficLog _log;
  std::string _line;  // begun, without its end
};

}  // namespace zephal::internal
