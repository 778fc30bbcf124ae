#include "Support/EventWait.h"

#include <poll.h>

#include <thread>

namespace support {

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
