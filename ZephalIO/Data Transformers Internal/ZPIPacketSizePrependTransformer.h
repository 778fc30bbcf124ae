#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"

/// Puts the size of each chunk in front of it: a big-endian number of `packetLengthEncoding` bytes,
/// which does not count itself. An empty chunk gets a size of 0.
///
/// A chunk that is too long for the field passes unchanged. So does every chunk while the width is
/// not 1 to 8. Nothing is kept between calls; the width may be changed on any thread.
class ZPIPacketSizePrependTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIPacketSizePrependTransformer> initWithPacketLengthEncoding(
      int32_t packetLengthEncoding);

  ZPIPacketSizePrependTransformer(Key, int32_t packetLengthEncoding);

  void modifyData(ZPKMutableData* data) override;
  /// Does nothing; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The width of the size field in bytes. Nothing in the library changes it later.
  int32_t packetLengthEncoding() const {
    return _packetLengthEncoding.load(std::memory_order_relaxed);
  }
  void setPacketLengthEncoding(int32_t width) {
    _packetLengthEncoding.store(width, std::memory_order_relaxed);
  }

 private:
  std::atomic<int32_t> _packetLengthEncoding;
};

using ZPIPacketSizePrependTransformerPtr = std::shared_ptr<ZPIPacketSizePrependTransformer>;
