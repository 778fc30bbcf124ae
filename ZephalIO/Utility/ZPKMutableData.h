#pragma once

#include <string>

#include "Utility/ZPKData.h"

/// A growable buffer that is edited in place, and a ZPKData wherever one is taken.
///
/// An edit keeps the object's identity: whoever holds the buffer sees the change. Not safe to edit
/// on one thread while another uses it. Memory that cannot be had throws std::bad_alloc.
///
/// Bytes leave at the front in constant time, and storage changes hands between two buffers without
/// a copy, so that cutting units off a long buffer costs each unit its own length and no more.
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

  using ZPKData::find;
  /// As ZPKData::find over the whole buffer. A search that finds nothing is remembered: while bytes
  /// are only appended, the next search for the same pattern looks at the new bytes alone. Nothing
  /// is remembered from a call of mutableBytes on until the bytes move to another place, since its
  /// pointer may be written through at any time.
  ZPKRange find(const ZPKData& pattern);

 private:
  void reserveAtEnd(size_t count);
  void leaveObject();
  void forgetSearch();
  void rememberAgain();
  void releaseRoom();

  size_t _capacity = 0;
  // The last pattern that was not found, and how many bytes from the start were searched for it; 0
  // means that nothing is remembered, ZPKNotFound that nothing can be, since somebody may hold a
  // pointer to the bytes.
  std::string _searchedPattern;
  size_t _searchedLength = 0;
};
