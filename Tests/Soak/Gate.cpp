#include "Soak/Gate.h"

namespace soak {

void Gate::open(size_t workers) {
  const std::scoped_lock lock(_mutex);
  _isClosed = false;
  _workers = workers;
}

bool Gate::close(std::chrono::seconds limit) {
  std::unique_lock lock(_mutex);
  _isClosed = true;
  return _left.wait_for(lock, limit, [this] { return _workers == 0; });
}

void Gate::leave() {
  const std::scoped_lock lock(_mutex);
  --_workers;
  _left.notify_all();
}

bool Gate::isClosed() const {
  const std::scoped_lock lock(_mutex);
  return _isClosed;
}

}  // namespace soak
