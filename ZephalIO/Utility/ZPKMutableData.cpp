#include "Utility/ZPKMutableData.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "Utility/ZPIByteSearch.h"
#include "Utility/ZPIMakeSharedWithBytes.h"

namespace {

constexpr size_t kSmallestCapacity = 32;
// A block this small is kept whatever it holds; a larger one that is mostly empty is not, so that
// an idle buffer does not sit on the 64 KiB of the read that filled it.
constexpr size_t kAlwaysKeptCapacity = 1024;
constexpr size_t kSparseFactor = 8;

// The longest data that lie in one block of memory with their object.
constexpr size_t kLongestWithinObject = kAlwaysKeptCapacity;

// A searched length that says that somebody may hold a pointer from mutableBytes.
constexpr size_t kCannotRemember = std::numeric_limits<size_t>::max();

bool isSparse(size_t length, size_t capacity) {
  return capacity > kAlwaysKeptCapacity && length < capacity / kSparseFactor;
}

uint8_t* allocate(size_t capacity) {
  auto* block = static_cast<uint8_t*>(std::malloc(capacity));
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

// What former holders did with the data, which have one holder now, comes before what happens from
// here on.
void orderAfterFormerHolders([[maybe_unused]] const ZPKDataPtr& data) {
#ifdef __SANITIZE_THREAD__
  const ZPKDataPtr reference = data;  // ThreadSanitizer does not know fences
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
}

}  // namespace

ZPKMutableData::ZPKMutableData() : ZPKData(true) {}

ZPKMutableDataPtr ZPKMutableData::data() { return std::make_shared<ZPKMutableData>(); }

ZPKMutableDataPtr ZPKMutableData::dataWithCapacity(size_t capacity) {
  auto result = data();
  result->reserveAtEnd(capacity);
  return result;
}

ZPKMutableDataPtr ZPKMutableData::dataWithBytesNoCopy(void* buffer, size_t length,
                                                      size_t capacity) {
  auto result = data();
  result->_storage = static_cast<uint8_t*>(buffer);
  result->_length = length;
  result->_capacity = capacity;
  return result;
}

ZPKMutableDataPtr ZPKMutableData::dataWithBytes(const void* bytes, size_t length) {
  if (length == 0) return data();
  uint8_t* storage = nullptr;
  const bool isWithinObject = length <= kLongestWithinObject;
  auto result = isWithinObject ? ZPIMakeSharedWithBytes<ZPKMutableData>(length, &storage) : data();
  if (!isWithinObject) storage = allocate(length);
  std::memcpy(storage, bytes, length);
  result->_storage = storage;
  result->_length = length;
  result->_capacity = length;
  result->_isWithinObject = isWithinObject;
  return result;
}

ZPKMutableDataPtr ZPKMutableData::mutableCopyGivingUp(ZPKDataPtr&& data) {
  if (data == nullptr) return nullptr;
  if (!data->_isMutable || data.use_count() != 1)
    return std::exchange(data, nullptr)->mutableCopy();
  // The last other holder may have let go on another thread a moment ago.
  orderAfterFormerHolders(data);
  auto mutableData = std::const_pointer_cast<ZPKData>(std::move(data));
  return std::static_pointer_cast<ZPKMutableData>(std::move(mutableData));
}

ZPKDataPtr ZPKMutableData::copy() const { return ZPKData::dataWithBytes(bytes(), _length); }

uint8_t* ZPKMutableData::mutableBytes() {
  _searchedLength = kCannotRemember;
  return _storage + _head;
}

void ZPKMutableData::append(const void* bytes, size_t length) {
  if (length == 0) return;
  const auto* source = static_cast<const uint8_t*>(bytes);
  const bool isOwn = _storage != nullptr && source >= _storage && source < _storage + _capacity;
  const size_t ownOffset = isOwn ? static_cast<size_t>(source - this->bytes()) : 0;
  reserveAtEnd(length);
  if (isOwn) source = this->bytes() + ownOffset;
  std::memmove(_storage + _head + _length, source, length);
  _length += length;
}

void ZPKMutableData::appendGivingUp(ZPKMutableData* other) {
  if (_length == 0 && !other->_isWithinObject && !isSparse(other->_length, other->_capacity)) {
    swap(*other);  // together with what a search of `other` has found out
  } else {
    append(*other);
  }
  other->setLength(0);
}

void ZPKMutableData::setContents(const ZPKData& data) {
  if (&data == this) return;
  forgetSearch();
  _length = 0;
  if (isSparse(data.length(), _capacity)) releaseRoom();
  _head = 0;
  append(data);
}

void ZPKMutableData::setLength(size_t length) {
  forgetSearch();
  if (length > _length) {
    const size_t added = length - _length;
    reserveAtEnd(added);
    std::memset(_storage + _head + _length, 0, added);
    _length = length;
  } else if (length < _length) {
    _length = length;
    if (length == 0) _head = 0;
    if (isSparse(_length, _capacity)) releaseRoom();
  }
}

void ZPKMutableData::zeroRange(ZPKRange range) {
  if (range.location >= _length) return;
  forgetSearch();
  const size_t start = static_cast<size_t>(range.location);
  const uint64_t count = std::min<uint64_t>(range.length, _length - start);
  std::memset(_storage + _head + start, 0, static_cast<size_t>(count));
}

void ZPKMutableData::dropFirst(size_t count) {
  forgetSearch();
  count = std::min(count, _length);
  _length -= count;
  _head = _length == 0 ? 0 : _head + count;
  if (isSparse(_length, _capacity)) releaseRoom();
}

ZPKMutableDataPtr ZPKMutableData::takeFirst(size_t count) {
  count = std::min(count, _length);
  if (count < _length - count) {
    ZPKMutableDataPtr first = dataWithBytes(bytes(), count);
    dropFirst(count);
    return first;
  }
  ZPKMutableDataPtr first = data();
  moveFirst(count, first.get());
  return first;
}

void ZPKMutableData::moveFirst(size_t count, ZPKMutableData* target) {
  count = std::min(count, _length);
  target->setLength(0);
  // The longer part keeps the storage, the shorter one is copied.
  if (count < _length - count) {
    target->append(bytes(), count);
    dropFirst(count);
    return;
  }
  target->swap(*this);
  append(target->bytes() + count, target->_length - count);
  target->setLength(count);
}

void ZPKMutableData::swap(ZPKMutableData& other) {
  if (&other == this) return;
  leaveObject();
  other.leaveObject();
  std::swap(_storage, other._storage);
  std::swap(_head, other._head);
  std::swap(_length, other._length);
  std::swap(_capacity, other._capacity);
  _searchedPattern.swap(other._searchedPattern);
  std::swap(_searchedLength, other._searchedLength);
}

ZPKRange ZPKMutableData::find(const ZPKData& pattern) {
  size_t start = 0;
  const bool canRemember = _searchedLength != kCannotRemember;
  if (canRemember && _searchedLength > 0 && _searchedPattern == pattern.view()) {
    // An occurrence can still begin in the last bytes that were too few for the whole pattern.
    start = _searchedLength - std::min(_searchedLength, pattern.length() - 1);
  }
  const uint64_t offset =
      ZPIFindBytes(bytes() + start, _length - start, pattern.bytes(), pattern.length());
  if (offset != ZPKNotFound) return {start + offset, pattern.length()};
  if (pattern.length() == 0 || !canRemember) return {};
  if (start == 0) _searchedPattern = pattern.view();
  _searchedLength = _length;
  return {};
}

void ZPKMutableData::forgetSearch() {
  if (_searchedLength != kCannotRemember) _searchedLength = 0;
}

// For after the bytes have moved: pointers to where they were are of no use any more.
void ZPKMutableData::rememberAgain() {
  if (_searchedLength == kCannotRemember) _searchedLength = 0;
}

// Growth doubles, so that appending costs amortised constant time; room that a dropped front left
// is used first when it is at least half of the block.
void ZPKMutableData::reserveAtEnd(size_t count) {
  if (_capacity - _head - _length >= count) return;
  const size_t needed = _length + count;
  if (needed < count) throw std::bad_alloc();
  if (_head > 0 && needed <= _capacity / 2) {
    std::memmove(_storage, _storage + _head, _length);
    _head = 0;
    rememberAgain();
    return;
  }
  const size_t capacity = std::max({needed, _length * 2, kSmallestCapacity});
  if (_head > 0 || _isWithinObject) {
    uint8_t* fresh = allocate(capacity);
    if (_length > 0) std::memcpy(fresh, _storage + _head, _length);
    if (!_isWithinObject) std::free(_storage);
    _storage = fresh;
    _head = 0;
    _isWithinObject = false;
  } else {
    auto* grown = static_cast<uint8_t*>(std::realloc(_storage, capacity));
    if (grown == nullptr) throw std::bad_alloc();
    _storage = grown;
  }
  _capacity = capacity;
  rememberAgain();
}

// Moves the bytes to a block that can change hands.
void ZPKMutableData::leaveObject() {
  if (!_isWithinObject) return;
  uint8_t* block = nullptr;
  if (_length > 0) {
    block = allocate(_length);
    std::memcpy(block, bytes(), _length);
  }
  _storage = block;
  _head = 0;
  _capacity = _length;
  _isWithinObject = false;
  rememberAgain();
}

// Within the object there is never so much room that it would be released.
void ZPKMutableData::releaseRoom() {
  uint8_t* fresh = nullptr;
  if (_length > 0) {
    fresh = static_cast<uint8_t*>(std::malloc(_length));
    if (fresh == nullptr) return;  // keeping the large block is only wasteful, not wrong
    std::memcpy(fresh, bytes(), _length);
  }
  std::free(_storage);
  _storage = fresh;
  _head = 0;
  _capacity = _length;
  rememberAgain();
}
