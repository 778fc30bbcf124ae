#include "MemoryChannel.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

MemoryChannel::MemoryChannel(std::string text, size_t piece)
    : _text(std::move(text)), _piece(piece) {}

bool MemoryChannel::openWithTimeout(double /*timeout*/, ZPKErrorPtr* /*error*/) {
  _isOpened = true;
  return true;
}

bool MemoryChannel::close(ZPKErrorPtr* /*error*/) {
  _isOpened = false;
  return true;
}

bool MemoryChannel::reset(ZPKErrorPtr* /*error*/) { return true; }

bool MemoryChannel::isOpened() const { return _isOpened; }

ZPKDataPtr MemoryChannel::readWithTimeout(double /*timeout*/, ZPKErrorPtr* /*error*/) {
  const size_t length = std::min(_piece, _text.size() - _next);
  void* block = std::malloc(_piece);
  std::memcpy(block, _text.data() + _next, length);
  _next = (_next + length) % _text.size();
  return ZPKMutableData::dataWithBytesNoCopy(block, length, _piece);
}

bool MemoryChannel::write(const ZPKDataPtr& /*data*/, ZPKErrorPtr* /*error*/) { return true; }
