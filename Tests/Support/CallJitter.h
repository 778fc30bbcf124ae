#pragma once

#include <cstdint>

namespace support {

/// During its lifetime every thread gives way at random moments: at the calls that SystemCalls
/// intercepts, before and after each. It yields, or sleeps for up to half a millisecond. So threads
/// meet in orders that an undisturbed machine hardly ever produces. Only one may exist at a time.
///
/// Unlike a watch of SystemCalls it orders nothing between the threads, so that a race detector
/// still sees their races.
class CallJitter {
 public:
  /// Each thread draws its own numbers from `seed`. It gives way at one in `oneIn` places; 0:
  /// never.
  CallJitter(uint64_t seed, uint32_t oneIn);
  CallJitter(const CallJitter&) = delete;
  CallJitter& operator=(const CallJitter&) = delete;
  ~CallJitter();
};

/// Perhaps gives way, if there is a CallJitter. Leaves errno as it was.
void giveWayAtRandom();

}  // namespace support
