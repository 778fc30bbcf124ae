#include "Crashes/PieceSource.h"

#include <string>
#include <thread>

namespace support {

bool PieceSource::openWithTimeout(double, ZPKErrorPtr*) { return !_isOpen.exchange(true); }

bool PieceSource::close(ZPKErrorPtr*) {
  addLogged();
  return _isOpen.exchange(false);
}

bool PieceSource::reset(ZPKErrorPtr*) { return true; }

ZPKDataPtr PieceSource::readWithTimeout(double, ZPKErrorPtr*) {
  addLogged();
  const bool isOver = _next == _count;
  const auto pause = isOver ? std::chrono::milliseconds(1) : _pause;
  if (pause.count() > 0) std::this_thread::sleep_for(pause);
  if (isOver) return ZPKData::dataWithBytes("", 0);
  const std::string piece = _pieces[_next++];
  return ZPKData::dataWithBytes(piece.data(), piece.size());
}

void PieceSource::addLogged() {
  if (_progress.logged < _next) _progress.addLogged();
}

bool PieceSource::write(const ZPKDataPtr&, ZPKErrorPtr*) { return true; }

}  // namespace support
