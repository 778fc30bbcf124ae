#include "Utility/ZPIObjectPool.h"

#include <algorithm>
#include <new>

namespace {

// More than a block has objects. The pool counts as so many users of its block, so that it need not
// change the number, which other threads may be changing, for each object.
constexpr size_t kUsersOfPool = ZPIObjectPool::kBlockSize;

}  // namespace

// An object that is too large for a block gets one of its own.
void ZPIObjectPool::startBlock(size_t size) {
  const size_t room = std::max(size, kBlockSize - sizeof(Block));
  auto* const memory = static_cast<std::byte*>(::operator new(sizeof(Block) + room));
  giveUpBlock();
  _block = new (memory) Block{kUsersOfPool};
  _next = memory + sizeof(Block);
  _room = room;
}

void ZPIObjectPool::giveUpBlock() {
  if (_block != nullptr) leave(_block, kUsersOfPool - std::exchange(_count, 0));
}

void ZPIObjectPool::leave(Block* block, size_t count) {
  if (block->users.fetch_sub(count, std::memory_order_acq_rel) == count) ::operator delete(block);
}
