#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Soak/Latencies.h"
#include "Soak/StreamChecker.h"

namespace soak {

/// What all workers of the station count together. Any thread may add.
class Tally {
 public:
  std::atomic<uint64_t> commands{0};
  std::atomic<uint64_t> sessions{0};
  std::atomic<uint64_t> bytesReceived{0};
  std::atomic<uint64_t> drained{0};
  std::atomic<uint64_t> logs{0};
  std::atomic<uint64_t> logLines{0};
  std::atomic<uint64_t> logLinesLost{0};
  std::atomic<uint64_t> logLinesTorn{0};
  std::atomic<uint64_t> messages{0};  // of ZephalLogging
  Latencies latencies;

  /// An error that an operation had, by domain and code.
  void countError(std::string_view name);
  /// Damage that was found, where, and evidence of the first cases.
  void addDamage(std::string_view place, const Damage& damage, std::string_view evidence);
  /// Something else that must not happen, and when it was noticed.
  void addFailure(std::string_view what);

  std::map<std::string, uint64_t> errors() const;
  std::map<std::string, Damage> damage() const;
  std::vector<std::string> failures() const;
  uint64_t failureCount() const;

 private:
  mutable std::mutex _mutex;
  std::map<std::string, uint64_t, std::less<>> _errors;
  std::map<std::string, Damage, std::less<>> _damage;
  const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
  std::vector<std::string> _failures;
  uint64_t _failureCount = 0;
};

}  // namespace soak
