#pragma once

#include <ZephalLogging/ZephalLogging.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace support {

/// Keeps the lines that the library logs while it lives, instead of printing them.
class LibraryLines {
 public:
  LibraryLines() {
    ZPKLoggingSetSink([this](int, std::string_view line) {
      const std::lock_guard guard(_mutex);
      _lines.emplace_back(line);
    });
  }
  LibraryLines(const LibraryLines&) = delete;
  LibraryLines& operator=(const LibraryLines&) = delete;
  ~LibraryLines() { ZPKLoggingSetSink(nullptr); }

  std::vector<std::string> all() const {
    const std::lock_guard guard(_mutex);
    return _lines;
  }

 private:
  mutable std::mutex _mutex;
  std::vector<std::string> _lines;
};

}  // namespace support
