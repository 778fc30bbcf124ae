#include "Data Channel Internal/ZPILogTime.h"

#include <pthread.h>
#include <time.h>

#include <cstring>
#include <mutex>

namespace {

// tzset(3) sets the time zone of the whole process, so only one thread at a time may call it.
constinit std::mutex zoneMutex;

// Whatever holds this mutex, or the C library's own lock of the time zone within it, is missing in
// a forked child, which would wait for ever. So a fork waits until no thread holds them. Registered
// when the library is loaded: a fork in the middle of a first use must find it too.
[[maybe_unused]] const int zoneForkHandlers = ::pthread_atfork(
    [] { zoneMutex.lock(); }, [] { zoneMutex.unlock(); }, [] { zoneMutex.unlock(); });

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
    const std::lock_guard guard(zoneMutex);
    tm local{};
    ::tzset();
    ::localtime_r(&second, &local);
    _length = ::strftime(_text, sizeof _text, "\n%Y-%m-%d %H:%M:%S.", &local);
    _second = second;
  }

  time_t _second = 0;
  size_t _length = 0;  // 0 until the first call
  char _text[32] = {};
};

// Writes three digits, and returns the place after them.
char* writeMilliseconds(long nanoseconds, char* place) {
  const long milliseconds = nanoseconds / 1000000;
  *place++ = static_cast<char>('0' + milliseconds / 100);
  *place++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *place++ = static_cast<char>('0' + milliseconds % 10);
  return place;
}

}  // namespace

ZPILogTime::ZPILogTime() {
  thread_local LastSecond lastSecond;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::string_view second = lastSecond.textOf(now.tv_sec);
  std::memcpy(_text, second.data(), second.size());
  char* place = writeMilliseconds(now.tv_nsec, _text + second.size());
  *place++ = ' ';
  *place++ = '<';
  _length = static_cast<size_t>(place - _text);
}
