#pragma once

#include <cstddef>
#include <cstdint>

#include "Utility/ZPKData.h"

/// Manages the memory of a ZPKMutableData: makes room at the end, drops bytes at the front, frees
/// room that is no longer needed. A result of type bool says whether the bytes have moved to a
/// different place. Not thread-safe.
class ZPIBlock {
 public:
  using Block = ZPKData::Block;

  /// Memory for a block, from malloc(3); throws std::bad_alloc if there is none.
  static uint8_t* allocate(size_t capacity);
  /// Makes the first `length` bytes of `storage` the data. Does not free the previous storage.
  static void place(Block& block, uint8_t* storage, size_t length, size_t capacity,
                    bool isWithinObject = false) {
    block.storage = storage;
    block.head = 0;
    block.length = length;
    block.isMutable = true;
    block.isWithinObject = isWithinObject;
    block.capacity = capacity & kLargestCapacity;
  }

  /// Whether `length` bytes would be few for a block of this size; never true for a small block.
  static bool isSparse(const Block& block, size_t length) {
    return block.capacity > kAlwaysKeptCapacity && length < block.capacity / kSparseFactor;
  }

  /// Makes room for `count` more bytes at the end; throws std::bad_alloc if it cannot.
  static bool reserveAtEnd(Block& block, size_t count) {
    if (block.capacity - block.head - block.length >= count) return false;
    return growAtEnd(block, count);
  }
  /// Drops the first `count` bytes, which must be there; in constant time unless memory is freed.
  static bool dropFirst(Block& block, size_t count) {
    block.length -= count;
    block.head = block.length == 0 ? 0 : block.head + count;
    return isSparse(block, block.length) && releaseRoom(block);
  }
  /// Keeps only the first `length` bytes, which must be there.
  static bool cutAt(Block& block, size_t length) {
    block.length = length;
    if (length == 0) block.head = 0;
    return isSparse(block, length) && releaseRoom(block);
  }
  /// Drops all bytes, and frees the memory if `expected` bytes would be few for it.
  static bool empty(Block& block, size_t expected) {
    block.length = 0;
    block.head = 0;
    return isSparse(block, expected) && releaseRoom(block);
  }
  /// Moves bytes that lie within their object to a block that can change owners.
  static bool leaveObject(Block& block);

 private:
  // A block of up to this size is always kept. A larger one that is mostly empty is not, so that an
  // idle buffer does not keep the 64 KiB of the read that filled it.
  static constexpr size_t kAlwaysKeptCapacity = 1024;
  static constexpr size_t kSparseFactor = 8;
  static constexpr uint64_t kLargestCapacity = (uint64_t{1} << Block::kCapacityBits) - 1;

  static bool growAtEnd(Block& block, size_t count);
  static bool releaseRoom(Block& block);
};
