#include "ZephalConsole/Internal/LineLog.h"

#include <algorithm>
#include <new>

namespace zephal::internal {
namespace {

constexpr size_t kLongestLine = 4096;

std::string_view withoutLineBreak(std::string_view line) {
  while (line.ends_with('\r') || line.ends_with('\n')) line.remove_suffix(1);
  return line;
}

}  // namespace

void LineLog::close() {
  try {
    flush();
  } catch (const std::bad_alloc&) {
    _line.clear();  // without memory for its last line, the log is closed all the same
  }
  _log.close();
}

void LineLog::read(std::string_view bytes) {
  if (!_log.isWanted()) return;
  while (!bytes.empty()) {
    const size_t count = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
    _line += bytes.substr(0, count);
    bytes.remove_prefix(count);
    if (_line.ends_with('\n') || _line.size() >= kLongestLine) flush();
  }
}

void LineLog::wrote(std::string_view line) {
  flush();
  _log.wrote(withoutLineBreak(line));
}

void LineLog::flush() {
  _log.read(withoutLineBreak(_line));
  _line.clear();
}

}  // namespace zephal::internal
