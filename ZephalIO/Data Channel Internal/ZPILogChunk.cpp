#include "Data Channel Internal/ZPILogChunk.h"

#include <time.h>

#include <algorithm>
#include <mutex>

#include "Utility/ZPIText.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKDataConversionFunctions.h"

namespace {

// Keeps the text of the last second that a thread asked for: converting a time to local time costs
// more than everything else in a short chunk. Each new second is formatted again, so that a change
// of the time zone shows.
class LastSecond {
 public:
  std::string_view textOf(time_t second) {
    if (_length == 0 || _second != second) format(second);
    return {_text, _length};
  }

 private:
  void format(time_t second) {
    // tzset(3) sets the time zone of the whole process, so only one thread at a time may call it.
    static std::mutex mutex;
    const std::lock_guard guard(mutex);
    tm local{};
    ::tzset();
    ::localtime_r(&second, &local);
    _length = ::strftime(_text, sizeof _text, "%Y-%m-%d %H:%M:%S", &local);
    _second = second;
  }

  time_t _second = 0;
  size_t _length = 0;  // 0 until the first call
  char _text[32] = {};
};

void appendMilliseconds(long nanoseconds, std::string& text) {
  const std::string digits = std::to_string(1000 + nanoseconds / 1000000);
  text.append(digits, 1);
}

// Appends the lines of `text`, with the first `prefixLength` bytes of the chunk between them.
void appendLines(std::string_view text, size_t prefixLength, std::string& chunk) {
  size_t lineFeed = text.find('\n');
  size_t carriageReturn = text.find('\r');
  size_t start = 0;
  for (;;) {
    const size_t end = std::min(lineFeed, carriageReturn);
    chunk.append(text.substr(start, end - start));
    if (end == std::string_view::npos) return;
    chunk.append(chunk, 0, prefixLength);
    start = end + 1;
    if (end == carriageReturn) {
      carriageReturn = text.find('\r', start);
      if (lineFeed == start) ++start;  // the second byte of a CR LF
    }
    if (lineFeed < start) lineFeed = text.find('\n', start);
  }
}

}  // namespace

std::string ZPILogPrefix(std::string_view identifier, pid_t process) {
  thread_local LastSecond lastSecond;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::string prefix("\n");
  prefix.reserve(64 + identifier.size());
  prefix.append(lastSecond.textOf(now.tv_sec)).push_back('.');
  appendMilliseconds(now.tv_nsec, prefix);
  prefix.append(" <").append(identifier).append(">[");
  prefix.append(std::to_string(process)).append("]: ");
  return prefix;
}

std::string ZPILogChunk(std::string_view prefix, const ZPKDataPtr& data) {
  std::string chunk;
  if (data == nullptr) return chunk.append(prefix);
  // Room for console text with its prefixes; a chunk with more lines than that grows.
  chunk.reserve(2 * prefix.size() + data->length() + data->length() / 2);
  chunk.append(prefix);
  if (ZPIIsValidUTF8(data->view())) {
    appendLines(data->view(), prefix.size(), chunk);
  } else {
    appendLines(ZPKDataToString(data), prefix.size(), chunk);
  }
  return chunk;
}
