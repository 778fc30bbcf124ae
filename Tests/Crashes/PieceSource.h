#pragma once

#include <ZephalIO/ZephalIO.h>

#include <atomic>
#include <chrono>
#include <cstddef>

#include "Crashes/Pieces.h"
#include "Crashes/Progress.h"

namespace support {

/// A channel at the bottom of a stack: each of its reads returns the next piece, and each write is
/// accepted. A read or a close says that the piece before it was logged, since neither comes before
/// that.
class PieceSource final : public ZPKDataChannel {
 public:
  /// Pauses between two pieces, and has nothing more to say after `count` of them.
  PieceSource(Pieces pieces, Progress& progress, std::chrono::microseconds pause, size_t count)
      : _pieces(pieces), _progress(progress), _pause(pause), _count(count) {}

  void setCount(size_t count) { _count = count; }

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override { return _isOpen; }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  void addLogged();

  const Pieces _pieces;
  Progress& _progress;
  const std::chrono::microseconds _pause;
  std::atomic<size_t> _count;
  std::atomic<bool> _isOpen{false};
  size_t _next = 0;
};

}  // namespace support
