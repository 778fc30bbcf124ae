#include "Support/CallJitter.h"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

namespace support {

namespace {

std::atomic<uint32_t> oneInPlaces{0};
std::atomic<uint64_t> currentSeed{0};
std::atomic<uint64_t> threadCount{0};

// Plain, since locks are taken before and after a thread's own objects live.
thread_local uint64_t state = 0;
thread_local uint64_t seedOfState = 0;

// The numbers of xorshift64*. All orders are relaxed: they must not order anything else.
uint64_t nextNumber() {
  const uint64_t seed = currentSeed.load(std::memory_order_relaxed);
  if (state == 0 || seedOfState != seed) {
    seedOfState = seed;
    state = (seed + threadCount.fetch_add(1, std::memory_order_relaxed)) * 0x9E3779B97F4A7C15U | 1;
  }
  state ^= state >> 12;
  state ^= state << 25;
  state ^= state >> 27;
  return state * 0x2545F4914F6CDD1DU >> 16;
}

}  // namespace

CallJitter::CallJitter(uint64_t seed, uint32_t oneIn) {
  currentSeed.store(seed, std::memory_order_relaxed);
  threadCount.store(0, std::memory_order_relaxed);
  oneInPlaces.store(oneIn, std::memory_order_relaxed);
}

CallJitter::~CallJitter() { oneInPlaces.store(0, std::memory_order_relaxed); }

void giveWayAtRandom() {
  const uint32_t oneIn = oneInPlaces.load(std::memory_order_relaxed);
  if (oneIn == 0) return;
  const uint64_t number = nextNumber();
  if (number % oneIn != 0) return;
  const int errnoBefore = errno;
  const uint64_t choice = number / oneIn;
  if (choice % 4 == 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(choice / 4 % 500));
  } else {
    ::sched_yield();
  }
  errno = errnoBefore;
}

}  // namespace support
