#include "Support/LogCapture.h"

#include <algorithm>
#include <string_view>

#include "ZephalLogging.h"

namespace support {

LogCapture::LogCapture() {
  ZPKLoggingSetSink([this](int level, std::string_view line) {
    const std::lock_guard guard(_mutex);
    _lines.push_back({level, std::string(line)});
  });
}

LogCapture::~LogCapture() { ZPKLoggingSetSink(nullptr); }

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard guard(_mutex);
  return _lines;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : lines()) texts.push_back(line.text);
  return texts;
}

size_t LogCapture::count(const std::string& text) const {
  const std::vector<std::string> all = texts();
  return static_cast<size_t>(std::count(all.begin(), all.end(), text));
}

void LogCapture::clear() {
  const std::lock_guard guard(_mutex);
  _lines.clear();
}

}  // namespace support
