#pragma once

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "Utility/ZPKData.h"

/// A growable buffer that is edited in place, and a ZPKData wherever one is taken.
///
/// An edit keeps the object's identity: whoever holds the buffer sees the change. Not safe to edit
/// on one thread while another uses it. Memory that cannot be had throws std::bad_alloc.
///
/// Bytes leave at the front in constant time, and storage changes hands between two buffers without
/// a copy, so that cutting units off a long buffer costs each unit its own length and no more.
// Frozen: callers' programs are compiled with its layout. See CONTRIBUTING, The binary interface.
class ZPK_EXPORT ZPKMutableData final : public ZPKData {
 public:
  /// An empty buffer with an owner of its own, such as a local variable.
  ZPKMutableData();
  /// An empty shared buffer.
  static ZPKMutableDataPtr data();
  /// An empty shared buffer with room for `capacity` bytes.
  static ZPKMutableDataPtr dataWithCapacity(size_t capacity);
  /// Takes over a malloc(3) block of `capacity` bytes whose first `length` are the data.
  static ZPKMutableDataPtr dataWithBytesNoCopy(void* buffer, size_t length, size_t capacity);
  /// A buffer with a copy of `length` bytes.
  static ZPKMutableDataPtr dataWithBytes(const void* bytes, size_t length);
  /// A mutable copy of `data`, which the caller gives up. If nobody else holds it, its bytes are
  /// taken over instead of copied. Null gives null.
  static ZPKMutableDataPtr mutableCopyGivingUp(ZPKDataPtr&& data);

  ZPKDataPtr copy() const override;

  /// The bytes for editing, valid until the next edit by another operation; may be null when the
  /// length is 0.
  uint8_t* mutableBytes();

  /// Adds bytes at the end. They may be the buffer's own.
  void append(const ZPKData& data) { append(data.bytes(), data.length()); }
  void append(const void* bytes, size_t length);
  /// Adds all bytes of `other` at the end and leaves `other` empty. The storage changes hands where
  /// that is cheaper than copying.
  void appendGivingUp(ZPKMutableData* other);
  /// Makes the contents those of `data`, which may be this buffer itself.
  void setContents(const ZPKData& data);
  /// Cuts the buffer at `length`, or fills it up to there with zeros.
  void setLength(size_t length);
  /// Overwrites the bytes of a range, which is cut at the end of the data, with zeros.
  void zeroRange(ZPKRange range);
  /// Drops the first `count` bytes, or all if there are fewer, in constant time.
  void dropFirst(size_t count);
  /// Takes the first `count` bytes, or all if there are fewer, off the buffer and gives them in one
  /// of their own.
  ZPKMutableDataPtr takeFirst(size_t count);
  /// Takes the first `count` bytes, or all if there are fewer, off the buffer and makes them the
  /// contents of `target`, another buffer.
  void moveFirst(size_t count, ZPKMutableData* target);
  /// Exchanges the contents of two buffers; no more than 1 KiB of each is copied.
  void swap(ZPKMutableData& other);

  /// As find over the whole buffer, for a pattern that is looked for again and again while bytes
  /// arrive. A search that finds nothing is remembered: while bytes are only appended, the next
  /// search for the same pattern looks at the new bytes alone. Nothing is remembered from a call of
  /// mutableBytes on until the bytes move to another place, since its pointer may be written
  /// through at any time.
  ZPKRange resumeFind(const ZPKData& pattern);

 private:
  // What a search that found nothing leaves for the next one.
  struct FailedSearch {
    // Where a search for `wanted` may begin: an occurrence can still begin in the last bytes, which
    // were too few for the whole pattern.
    size_t startFor(const ZPKData& wanted) const {
      if (length == kNone || length == kForbidden || pattern != wanted.view()) return 0;
      return length - std::min(length, wanted.length() - 1);
    }
    // `wanted` does not occur between `start`, which startFor has given, and `end`.
    void remember(const ZPKData& wanted, size_t start, size_t end) {
      if (length == kForbidden) return;
      if (start == 0) pattern = wanted.view();
      length = end;
    }
    void forget() {
      if (length != kForbidden) length = kNone;
    }
    // Somebody has a pointer to the bytes and may write through it, until they move.
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

  FailedSearch _failedSearch;
};
