/// @file
/// Bytes in a buffer that grows.
#pragma once

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "Utility/ZPKData.h"

/// A growable buffer that is edited in place. It can be passed wherever a ZPKData is expected.
///
/// An edit keeps the object's identity: everyone who holds the buffer sees the change. Do not edit
/// it on one thread while another uses it. If memory cannot be allocated, it throws std::bad_alloc.
///
/// Dropping bytes at the front takes constant time, and two buffers exchange their storage without
/// a copy, so removing a unit from the front of a long buffer costs only the length of the unit.
// Frozen: callers' programs are compiled with its layout. See CONTRIBUTING, The binary interface.
class ZPK_EXPORT ZPKMutableData final : public ZPKData {
 public:
  /// An empty buffer that is not shared, such as a local variable.
  ZPKMutableData();
  /// An empty shared buffer.
  static ZPKMutableDataPtr data();
  /// An empty shared buffer with room for `capacity` bytes.
  static ZPKMutableDataPtr dataWithCapacity(size_t capacity);
  /// Takes over a malloc(3) block of `capacity` bytes whose first `length` are the data.
  static ZPKMutableDataPtr dataWithBytesNoCopy(void* buffer, size_t length, size_t capacity);
  /// A buffer with a copy of `length` bytes.
  static ZPKMutableDataPtr dataWithBytes(const void* bytes, size_t length);
  /// A mutable copy of `data`, which the caller gives up. If it is mutable and nobody else holds
  /// it, it is returned itself, without a copy. Null for null.
  static ZPKMutableDataPtr mutableCopyGivingUp(ZPKDataPtr&& data);

  ZPKDataPtr copy() const override;

  /// The bytes for editing, valid until the next edit by another operation; may be null when the
  /// length is 0.
  uint8_t* mutableBytes();

  /// Appends bytes, which may be the buffer's own.
  void append(const ZPKData& data) { append(data.bytes(), data.length()); }
  /// The same, for `length` bytes at `bytes`, which may be null if the length is 0.
  void append(const void* bytes, size_t length);
  /// Appends all bytes of `other` and leaves `other` empty. Takes over its storage if that is
  /// cheaper than copying.
  void appendGivingUp(ZPKMutableData* other);
  /// Replaces the contents by a copy of those of `data`, which may be this buffer itself.
  void setContents(const ZPKData& data);
  /// Truncates the buffer to `length`, or appends zeros up to it.
  void setLength(size_t length);
  /// Overwrites the bytes of a range, which is limited to the end of the data, with zeros.
  void zeroRange(ZPKRange range);
  /// Drops the first `count` bytes, or all if there are fewer, in constant time.
  void dropFirst(size_t count);
  /// Removes the first `count` bytes, or all if there are fewer, and returns them in a new buffer.
  ZPKMutableDataPtr takeFirst(size_t count);
  /// Removes the bytes up to and including the first `pattern`, and returns them in a new buffer;
  /// null if the pattern does not occur. Searches like resumeFind.
  ZPKMutableDataPtr takeThrough(const ZPKData& pattern);
  /// Removes the first `count` bytes, or all if there are fewer, and makes them the contents of
  /// `target`, which must be a different buffer.
  void moveFirst(size_t count, ZPKMutableData* target);
  /// Exchanges the contents of two buffers; copies at most 1 KiB of each.
  void swap(ZPKMutableData& other);

  /// Like find over the whole buffer, for a pattern that is searched for repeatedly while bytes
  /// arrive. A search that finds nothing is remembered: while bytes are only appended, the next
  /// search for the same pattern looks only at the new bytes. After a call of mutableBytes nothing
  /// is remembered until the bytes move to a different place, since the caller may write through
  /// that pointer at any time.
  ZPKRange resumeFind(const ZPKData& pattern);

 private:
  // What a search that found nothing remembers for the next one.
  struct FailedSearch {
    // Where a search for `wanted` must begin: an occurrence can still begin in the last bytes,
    // which were too few for the whole pattern.
    size_t startFor(const ZPKData& wanted) const {
      if (length == kNone || length == kForbidden || pattern != wanted.view()) return 0;
      return length - std::min(length, wanted.length() - 1);
    }
    // Remembers that `wanted` does not occur between `start`, which startFor returned, and `end`.
    void remember(const ZPKData& wanted, size_t start, size_t end) {
      if (length == kForbidden) return;
      if (start == 0) pattern = wanted.view();
      length = end;
    }
    void forget() {
      if (length != kForbidden) length = kNone;
    }
    // Remembers nothing until the bytes move: a caller has a pointer to them and may write through
    // it.
    void forbid() { length = kForbidden; }
    void allowIf(bool bytesHaveMoved) {
      if (bytesHaveMoved && length == kForbidden) length = kNone;
    }
    void swap(FailedSearch& other) {
      pattern.swap(other.pattern);
      std::swap(length, other.length);
    }

    static constexpr size_t kNone = 0;
    static constexpr size_t kForbidden = std::numeric_limits<size_t>::max();

    std::string pattern;
    size_t length = kNone;  // how many bytes from the start were searched
  };

  friend class ZPIRoom;

  ZPKMutableDataPtr takeLong(size_t count);
  ZPKRange rememberFailure(const ZPKData& pattern, size_t start);

  FailedSearch _failedSearch;
};
