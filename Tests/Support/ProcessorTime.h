#pragma once

#include <time.h>

namespace support {

/// The time, in seconds, that the calling thread has used the processor. For tests that limit the
/// cost of work: unlike the time of day, it does not grow while other programs run.
inline double processorTime() {
  timespec used{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace support
