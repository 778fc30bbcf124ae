#include "Support/EventWait.h"

#include <poll.h>

#include <thread>

#include "Support/TestClock.h"

namespace support {

namespace {

std::chrono::steady_clock::time_point now() {
  const RealTime realTime;
  return std::chrono::steady_clock::now();
}

void pause() {
  const RealTime realTime;
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = now() + limit;
  while (!condition()) {
    if (now() >= deadline) return condition();
    pause();
  }
  return true;
}

bool waitUntilReadable(int descriptor, std::chrono::milliseconds limit) {
  const auto isReadable = [descriptor] {
    pollfd entry{descriptor, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
  };
  return waitFor(isReadable, limit);
}

}  // namespace support
