#include "Utility/ZPKMutableData.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Utility/ZPIBlock.h"
#include "Utility/ZPIByteSearch.h"
#include "Utility/ZPIMakeSharedWithBytes.h"
#include "Utility/ZPIRangeEnd.h"
#include "Utility/ZPIUnshare.h"

namespace {

// The longest data that is in one block of memory with its object. The object needs 128 bytes of
// the block. glibc caches freed blocks of up to 1,032 bytes per thread; for larger ones malloc and
// free are slower.
constexpr size_t kLongestWithinObject = 904;

}  // namespace

ZPKMutableData::ZPKMutableData() : ZPKData(true) {}

ZPKMutableDataPtr ZPKMutableData::data() { return std::make_shared<ZPKMutableData>(); }

ZPKMutableDataPtr ZPKMutableData::dataWithCapacity(size_t capacity) {
  if (capacity > kLongestWithinObject) {
    auto result = data();
    ZPIBlock::reserveAtEnd(result->_block, capacity);
    return result;
  }
  uint8_t* storage = nullptr;
  auto result = ZPIMakeSharedWithBytes<ZPKMutableData>(capacity, &storage);
  ZPIBlock::place(result->_block, storage, 0, capacity, true);
  return result;
}

ZPKMutableDataPtr ZPKMutableData::dataWithBytesNoCopy(void* buffer, size_t length,
                                                      size_t capacity) {
  auto result = data();
  ZPIBlock::place(result->_block, static_cast<uint8_t*>(buffer), length, capacity);
  return result;
}

ZPKMutableDataPtr ZPKMutableData::dataWithBytes(const void* bytes, size_t length) {
  if (length == 0) return data();
  if (length > kLongestWithinObject) {
    auto result = data();
    ZPIBlock::place(result->_block, ZPIBlock::allocate(length), length, length);
    std::memcpy(result->_block.storage, bytes, length);
    return result;
  }
  uint8_t* storage = nullptr;
  auto result = ZPIMakeSharedWithBytes<ZPKMutableData>(length, &storage);
  std::memcpy(storage, bytes, length);
  ZPIBlock::place(result->_block, storage, length, length, true);
  return result;
}

ZPKMutableDataPtr ZPKMutableData::mutableCopyGivingUp(ZPKDataPtr&& data) {
  if (data == nullptr) return nullptr;
  ZPIUnshare(&data);
  auto mutableData = std::const_pointer_cast<ZPKData>(std::move(data));
  data.reset();  // libc++ 14 has copied it, and the caller would see what is appended
  return std::static_pointer_cast<ZPKMutableData>(std::move(mutableData));
}

ZPKDataPtr ZPKMutableData::copy() const { return ZPKData::dataWithBytes(bytes(), length()); }

uint8_t* ZPKMutableData::mutableBytes() {
  _failedSearch.forbid();
  return _block.storage + _block.head;
}

void ZPKMutableData::append(const void* bytes, size_t length) {
  if (length == 0) return;
  const auto* source = static_cast<const uint8_t*>(bytes);
  const bool isOwn = _block.storage != nullptr && source >= _block.storage &&
                     source < _block.storage + _block.capacity;
  const size_t ownOffset = isOwn ? static_cast<size_t>(source - this->bytes()) : 0;
  _failedSearch.allowIf(ZPIBlock::reserveAtEnd(_block, length));
  if (isOwn) source = this->bytes() + ownOffset;
  // A block with room for bytes has storage. NOLINTNEXTLINE(*-core.NonNullParamChecker)
  std::memmove(_block.storage + _block.head + _block.length, source, length);
  _block.length += length;
}

void ZPKMutableData::appendGivingUp(ZPKMutableData* other) {
  const Block& given = other->_block;
  if (length() == 0 && !given.isWithinObject && !ZPIBlock::isSparse(given, given.length)) {
    swap(*other);  // together with the memory of a failed search of `other`
  } else {
    append(*other);
  }
  other->setLength(0);
}

void ZPKMutableData::setContents(const ZPKData& data) {
  if (&data == this) return;
  _failedSearch.forget();
  _failedSearch.allowIf(ZPIBlock::empty(_block, data.length()));
  append(data);
}

void ZPKMutableData::setLength(size_t length) {
  _failedSearch.forget();
  if (length < _block.length) {
    _failedSearch.allowIf(ZPIBlock::cutAt(_block, length));
  } else if (length > _block.length) {
    const size_t added = length - _block.length;
    _failedSearch.allowIf(ZPIBlock::reserveAtEnd(_block, added));
    std::memset(_block.storage + _block.head + _block.length, 0, added);
    _block.length = length;
  }
}

void ZPKMutableData::zeroRange(ZPKRange range) {
  if (range.location >= length()) return;
  _failedSearch.forget();
  const size_t start = static_cast<size_t>(range.location);
  const uint64_t count = std::min<uint64_t>(range.length, length() - start);
  std::memset(_block.storage + _block.head + start, 0, static_cast<size_t>(count));
}

void ZPKMutableData::dropFirst(size_t count) {
  _failedSearch.forget();
  _failedSearch.allowIf(ZPIBlock::dropFirst(_block, std::min(count, length())));
}

ZPKMutableDataPtr ZPKMutableData::takeFirst(size_t count) {
  count = std::min(count, length());
  const bool isShort = count < length() - count;
  ZPKMutableDataPtr first = isShort ? dataWithBytes(bytes(), count) : data();
  if (isShort) {
    dropFirst(count);
  } else {
    moveFirst(count, first.get());
  }
  return first;
}

// The common case is here: there is a pattern, and what it ends is short.
ZPKMutableDataPtr ZPKMutableData::takeThrough(const ZPKData& pattern) {
  const ZPKRange found = resumeFind(pattern);
  const size_t count = found.location == ZPKNotFound ? 0 : ZPIRangeEnd(found);
  const bool isShort = count > 0 && count < length() - count;
  ZPKMutableDataPtr first = isShort ? dataWithBytes(bytes(), count) : takeLong(count);
  if (isShort) dropFirst(count);
  return first;
}

[[gnu::noinline]] ZPKMutableDataPtr ZPKMutableData::takeLong(size_t count) {
  return count == 0 ? nullptr : takeFirst(count);
}

void ZPKMutableData::moveFirst(size_t count, ZPKMutableData* target) {
  count = std::min(count, length());
  target->setLength(0);
  // The longer part keeps the storage, the shorter one is copied.
  if (count < length() - count) {
    target->append(bytes(), count);
    dropFirst(count);
    return;
  }
  target->swap(*this);
  append(target->bytes() + count, target->length() - count);
  target->setLength(count);
}

void ZPKMutableData::swap(ZPKMutableData& other) {
  if (&other == this) return;
  _failedSearch.allowIf(ZPIBlock::leaveObject(_block));
  other._failedSearch.allowIf(ZPIBlock::leaveObject(other._block));
  std::swap(_block, other._block);
  _failedSearch.swap(other._failedSearch);
}

ZPKRange ZPKMutableData::resumeFind(const ZPKData& pattern) {
  // Usually nothing is remembered, and the pattern is there.
  const size_t start =
      _failedSearch.length != FailedSearch::kNone ? _failedSearch.startFor(pattern) : 0;
  const uint64_t offset =
      ZPIFindBytes(bytes() + start, length() - start, pattern.bytes(), pattern.length());
  if (offset == ZPKNotFound) return rememberFailure(pattern, start);
  return {start + offset, pattern.length()};
}

// Not inlined, so that a search that finds something stays short.
[[gnu::noinline]] ZPKRange ZPKMutableData::rememberFailure(const ZPKData& pattern, size_t start) {
  if (pattern.length() > 0) _failedSearch.remember(pattern, start, length());
  return {};
}
