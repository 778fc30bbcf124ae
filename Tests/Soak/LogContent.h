#pragma once

#include <cstdint>
#include <string>

namespace soak {

/// What a log file contains, without dates and line feeds.
struct LogContent {
  std::string read;
  std::string written;
  uint64_t readLines = 0;
  uint64_t writtenLines = 0;
  /// Lines without a date, a direction and a process.
  uint64_t torn = 0;

  /// The content of the file; empty if there is none.
  static LogContent ofFile(const std::string& path);
};

}  // namespace soak
