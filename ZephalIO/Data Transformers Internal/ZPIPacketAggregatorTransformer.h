#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"

/// Unpacks a stream of packets, each a big-endian size of `packetLengthEncoding` bytes followed by
/// that many bytes of payload. Each call outputs one payload.
///
///     waiting for a size field --(a size other than 0)--> collecting a payload
///                ^                                                |
///                +-----------(the payload is complete)------------+
///
/// A packet of size 0 is consumed and looks like no packet. Only the low 32 bits of a size count,
/// as a signed number; a negative size is never reached, so everything is held back until reset.
/// The same happens while a size field is awaited and the width is not 1 to 8, since no such field
/// can be read.
///
/// The accessors may be used on any thread; the buffer itself is not thread-safe. Nothing in the
/// library calls setPacketLengthEncoding, readResults or the accessors of the separator.
class ZPIPacketAggregatorTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIPacketAggregatorTransformer> initWithPacketLengthEncoding(
      int32_t packetLengthEncoding);

  ZPIPacketAggregatorTransformer(Key, int32_t packetLengthEncoding);

  void modifyData(ZPKMutableData* data) override;
  /// Drops the buffered bytes and waits for a size field; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// The width of the size field in bytes, from the next field on.
  int32_t packetLengthEncoding() const {
    return _packetLengthEncoding.load(std::memory_order_relaxed);
  }
  void setPacketLengthEncoding(int32_t width) {
    _packetLengthEncoding.store(width, std::memory_order_relaxed);
  }

  /// The buffered bytes, without a size field that was already read.
  ZPKMutableDataPtr buffer() const { return _buffer.load(); }
  void setBuffer(ZPKMutableDataPtr buffer) { _buffer.store(std::move(buffer)); }

  /// A buffer that the framing does not use.
  ZPKMutableDataPtr readResults() const { return _readResults.load(); }
  void setReadResults(ZPKMutableDataPtr readResults) { _readResults.store(std::move(readResults)); }

  /// The size of the payload that is being collected; 0 while a size field is awaited.
  uint64_t expectedPacketSize() const {
    return _expectedPacketSize.load(std::memory_order_relaxed);
  }
  void setExpectedPacketSize(uint64_t size) {
    _expectedPacketSize.store(size, std::memory_order_relaxed);
  }

  /// Kept for its owner; the framing has no separator.
  ZPKDataPtr packetSeparator() const { return _packetSeparator.load(); }
  void setPacketSeparator(ZPKDataPtr separator) { _packetSeparator.store(std::move(separator)); }

 private:
  void readSizeField(ZPKMutableData& buffer);
  void handOutPayload(ZPKMutableData& buffer, ZPKMutableData* result);

  std::atomic<int32_t> _packetLengthEncoding;
  ZPKAtomic<ZPKMutableDataPtr> _buffer;
  ZPKAtomic<ZPKMutableDataPtr> _readResults;
  std::atomic<uint64_t> _expectedPacketSize{0};
  ZPKAtomic<ZPKDataPtr> _packetSeparator;
};

using ZPIPacketAggregatorTransformerPtr = std::shared_ptr<ZPIPacketAggregatorTransformer>;

// Two steps of the source, declared so that a test can check their assertions. A failed assertion
// is written to standard error and ends the process.

/// Reads the size field of `sizeAllocated` bytes, at most 8, at the start of `dataIn`: the low 32
/// bits of its number. Asserts that `dataIn` is long enough.
int32_t readExpectedSizeAndSwap(const ZPKData& dataIn, size_t sizeAllocated);

/// Drops the first `n` bytes of `dataIn`. Asserts that there are that many.
void truncateFirstNBytes(ZPKMutableData& dataIn, size_t n);
