#pragma once

#include <cstddef>
#include <cstdint>

#include "Utility/ZPKData.h"

/// What a ZPKMutableData does with the memory that its bytes lie in: room at the end, bytes dropped
/// at the front, room given back. A result of type bool says whether the bytes have moved to
/// another place.
class ZPIBlock {
 public:
  using Block = ZPKData::Block;

  /// Memory for a block, from malloc(3); throws std::bad_alloc if there is none.
  static uint8_t* allocate(size_t capacity);
  /// Makes the first `length` bytes of `storage` the data. What the block had before is not freed.
  static void place(Block& block, uint8_t* storage, size_t length, size_t capacity,
                    bool isWithinObject = false) {
    block.storage = storage;
    block.head = 0;
    block.length = length;
    block.isMutable = true;
    block.isWithinObject = isWithinObject;
    block.capacity = capacity & kLargestCapacity;
  }

  /// Whether so many bytes would be few for a block of this size. A small block never holds too
  /// few.
  static bool isSparse(const Block& block, size_t length) {
    return block.capacity > kAlwaysKeptCapacity && length < block.capacity / kSparseFactor;
  }

  /// Makes room for `count` more bytes at the end; throws std::bad_alloc if it cannot.
  static bool reserveAtEnd(Block& block, size_t count) {
    if (block.capacity - block.head - block.length >= count) return false;
    return growAtEnd(block, count);
  }
  /// Drops the first `count` bytes, which are no more than there are, in constant time unless room
  /// is given back.
  static bool dropFirst(Block& block, size_t count) {
    block.length -= count;
    block.head = block.length == 0 ? 0 : block.head + count;
    return isSparse(block, block.length) && releaseRoom(block);
  }
  /// Keeps the first `length` bytes, which are no more than there are.
  static bool cutAt(Block& block, size_t length) {
    block.length = length;
    if (length == 0) block.head = 0;
    return isSparse(block, length) && releaseRoom(block);
  }
  /// Drops all bytes, and the room too if `expected` bytes would be few for it.
  static bool empty(Block& block, size_t expected) {
    block.length = 0;
    block.head = 0;
    return isSparse(block, expected) && releaseRoom(block);
  }
  /// Moves bytes that lie within their object to a block that can change hands.
  static bool leaveObject(Block& block);

 private:
  // A block this small is kept whatever it holds; a larger one that is mostly empty is not, so that
  // an idle buffer does not sit on the 64 KiB of the read that filled it.
  static constexpr size_t kAlwaysKeptCapacity = 1024;
  static constexpr size_t kSparseFactor = 8;
  static constexpr uint64_t kLargestCapacity = (uint64_t{1} << Block::kCapacityBits) - 1;

  static bool growAtEnd(Block& block, size_t count);
  static bool releaseRoom(Block& block);
};
