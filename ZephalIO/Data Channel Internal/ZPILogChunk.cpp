#include "Data Channel Internal/ZPILogChunk.h"

#include <algorithm>
#include <cstring>

namespace {

// A chunk that is being appended to a log.
class Appending {
 public:
  Appending(const ZPILogPrefix& prefix, ZPIHeapVector<char>& log)
      : _log(log), _start(log.size()), _prefixLength(prefix.length()) {
    for (const std::string_view part : {prefix.time, prefix.identifier, prefix.process}) {
      _log.append(part.data(), part.size());
    }
  }

  void append(std::string_view text) { _log.append(text.data(), text.size()); }

  // Appends the text, and the prefix that the chunk begins with.
  void appendWithPrefix(std::string_view text) {
    char* const place = _log.extend(text.size() + _prefixLength);
    std::memcpy(place, text.data(), text.size());
    std::memcpy(place + text.size(), _log.data() + _start, _prefixLength);
  }

 private:
  ZPIHeapVector<char>& _log;
  const size_t _start;
  const size_t _prefixLength;
};

}  // namespace

std::string ZPILogProcess(pid_t process) { return ">[" + std::to_string(process) + "]: "; }

void ZPIAppendLogChunk(const ZPILogPrefix& prefix, std::string_view text,
                       ZPIHeapVector<char>& log) {
  // Room for console text with its prefixes; a chunk with more lines than that grows.
  log.reserve(2 * prefix.length() + text.size() + text.size() / 2);
  Appending chunk(prefix, log);
  size_t lineFeed = text.find('\n');
  size_t carriageReturn = text.find('\r');
  size_t start = 0;
  for (;;) {
    const size_t end = std::min(lineFeed, carriageReturn);
    if (end == std::string_view::npos) return chunk.append(text.substr(start));
    chunk.appendWithPrefix(text.substr(start, end - start));
    start = end + 1;
    if (end == carriageReturn) {
      carriageReturn = text.find('\r', start);
      if (lineFeed == start) ++start;  // the second byte of a CR LF
    }
    if (lineFeed < start) lineFeed = text.find('\n', start);
  }
}
