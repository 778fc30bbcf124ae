#include "Hostile/FloodChannel.h"

#include <algorithm>
#include <chrono>

namespace {

// Short, so that what is done again for each piece shows.
constexpr size_t kPiece = 128;

}  // namespace

FloodChannel::FloodChannel(std::string text) : _text(std::move(text)) {}

bool FloodChannel::isUsedUp() const {
  const std::lock_guard held(_mutex);
  return _isUsedUp;
}

void FloodChannel::waitUntilUsedUp() {
  std::unique_lock held(_mutex);
  _changed.wait(held, [this] { return _isUsedUp; });
}

bool FloodChannel::openWithTimeout(double /*timeout*/, ZPKErrorPtr* /*error*/) {
  const std::lock_guard held(_mutex);
  return _isOpened = true;
}

bool FloodChannel::close(ZPKErrorPtr* /*error*/) {
  const std::lock_guard held(_mutex);
  _isOpened = false;
  _changed.notify_all();
  return true;
}

bool FloodChannel::reset(ZPKErrorPtr* /*error*/) { return true; }

bool FloodChannel::isOpened() const {
  const std::lock_guard held(_mutex);
  return _isOpened;
}

ZPKDataPtr FloodChannel::readWithTimeout(double timeout, ZPKErrorPtr* /*error*/) {
  std::unique_lock held(_mutex);
  if (!_isOpened) return nullptr;
  const size_t count = std::min(kPiece, _text.size() - _next);
  if (count == 0) {
    _isUsedUp = true;
    _changed.notify_all();
    _changed.wait_for(held, std::chrono::duration<double>(std::max(timeout, 0.0)),
                      [this] { return !_isOpened; });
    return ZPKData::data();
  }
  const char* const bytes = _text.data() + _next;
  _next += count;
  return ZPKMutableData::dataWithBytes(bytes, count);
}

bool FloodChannel::write(const ZPKDataPtr& /*data*/, ZPKErrorPtr* /*error*/) { return true; }
