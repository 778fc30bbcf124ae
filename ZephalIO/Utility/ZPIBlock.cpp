#include "Utility/ZPIBlock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Utility/ZPISpareBlock.h"

namespace {

constexpr size_t kSmallestCapacity = 32;

}  // namespace

uint8_t* ZPIBlock::allocate(size_t capacity) {
  auto* storage = static_cast<uint8_t*>(std::malloc(capacity));
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}

// Growth doubles, so that an append takes amortised constant time. If bytes dropped at the front
// have left at least half of the block free, that room is used first.
bool ZPIBlock::growAtEnd(Block& block, size_t count) {
  const size_t needed = block.length + count;
  if (needed < count) throw std::bad_alloc();
  if (block.head > 0 && needed <= block.capacity / 2) {
    std::memmove(block.storage, block.storage + block.head, block.length);
    block.head = 0;
    return true;
  }
  const size_t capacity = std::max({needed, block.length * 2, kSmallestCapacity});
  const bool becomesLarge =
      block.capacity < ZPISpareBlock::kSmallest && capacity >= ZPISpareBlock::kSmallest;
  if (block.head == 0 && !block.isWithinObject && !becomesLarge) {
    auto* grown = static_cast<uint8_t*>(std::realloc(block.storage, capacity));
    if (grown == nullptr) throw std::bad_alloc();
    place(block, grown, block.length, capacity);
    return true;
  }
  const auto [memory, size] = ZPISpareBlock::take(capacity);
  if (memory == nullptr) throw std::bad_alloc();
  auto* const fresh = static_cast<uint8_t*>(memory);
  if (block.length > 0) std::memcpy(fresh, block.storage + block.head, block.length);
  if (!block.isWithinObject)
    ZPISpareBlock::release(block.storage, static_cast<size_t>(block.capacity));
  place(block, fresh, block.length, size);
  return true;
}

bool ZPIBlock::leaveObject(Block& block) {
  if (!block.isWithinObject) return false;
  uint8_t* fresh = nullptr;
  if (block.length > 0) {
    fresh = allocate(block.length);
    std::memcpy(fresh, block.storage + block.head, block.length);
  }
  place(block, fresh, block.length, block.length);
  return true;
}

// Memory within the object is never large enough to be released.
bool ZPIBlock::releaseRoom(Block& block) {
  uint8_t* fresh = nullptr;
  if (block.length > 0) {
    fresh = static_cast<uint8_t*>(std::malloc(block.length));
    if (fresh == nullptr) return false;  // to keep the large block is only wasteful, not wrong
    std::memcpy(fresh, block.storage + block.head, block.length);
  }
  ZPISpareBlock::release(block.storage, static_cast<size_t>(block.capacity));
  place(block, fresh, block.length, block.length);
  return true;
}
