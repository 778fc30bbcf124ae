#include "Crashes/Progress.h"

#include <chrono>

namespace support {

bool Progress::addLogged() {
  const uint32_t number = logged.load();
  tickOf[number] = ticks.load();
  timeOf[number] = now();
  logged = number + 1;
  return number + 1 < kMostPieces;
}

int64_t Progress::now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

}  // namespace support
