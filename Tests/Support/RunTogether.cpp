#include "Support/RunTogether.h"

#include <latch>
#include <thread>

namespace support {

void runTogether(const std::vector<std::function<void()>>& bodies) {
  std::latch start(static_cast<ptrdiff_t>(bodies.size()));
  std::vector<std::thread> threads;
  threads.reserve(bodies.size());
  for (const auto& body : bodies) {
    threads.emplace_back([&start, &body] {
      start.arrive_and_wait();
      body();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace support
