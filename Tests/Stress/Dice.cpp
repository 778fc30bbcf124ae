#include "Stress/Dice.h"

#include <thread>

namespace support {

void Dice::pause(std::chrono::microseconds limit) {
  if (oneIn(2)) return;
  std::this_thread::sleep_for(limit * static_cast<int64_t>(below(1024)) / 1024);
}

}  // namespace support
