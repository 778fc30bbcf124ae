#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace soak {

/// Sends the workers home for the moment in which the station is counted.
class Gate {
 public:
  /// Lets workers work: so many that all must leave.
  void open(size_t workers);
  /// Tells them to leave soon, and waits until all have; false if they do not in time.
  bool close(std::chrono::seconds limit);
  /// A worker that has released everything goes.
  void leave();
  /// Whether a worker should leave soon.
  bool isClosed() const;

 private:
  mutable std::mutex _mutex;
  std::condition_variable _left;
  bool _isClosed = true;
  size_t _workers = 0;
};

}  // namespace soak
