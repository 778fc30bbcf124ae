/// @file
/// Bytes that are shared and never change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKObject.h"
#include "Utility/ZPKTypes.h"

/// An immutable sequence of bytes, shared by reference.
///
/// Null and empty are two different things everywhere in this library: a null pointer is "no data",
/// an empty instance is "data of length 0". All operations may run on several threads at the same
/// time, unless the object is a ZPKMutableData that is being edited.
// Frozen: callers' programs are compiled with its layout. See CONTRIBUTING, The binary interface.
class ZPK_EXPORT ZPKData : public ZPKObject {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// The empty instance; always the same one, nothing is allocated.
  static ZPKDataPtr data();
  /// A copy of `length` bytes.
  static ZPKDataPtr dataWithBytes(const void* bytes, size_t length);
  /// Takes over `buffer`, which must come from malloc(3) or be null, and frees it with free(3) when
  /// the last reference is released. Nothing is copied. `length` may be less than the allocated
  /// size.
  static ZPKDataPtr dataWithBytesNoCopy(void* buffer, size_t length);
  /// The UTF-8 bytes of a string; null for a null string.
  static ZPKDataPtr dataWithString(std::optional<std::string_view> string);

  explicit ZPKData(Key) : ZPKData(false) {}
  ZPKData(const ZPKData&) = delete;
  ZPKData& operator=(const ZPKData&) = delete;
  ~ZPKData() override;

  /// The first byte. May be null if the length is 0. Valid while the object lives and, for a
  /// ZPKMutableData, until its next edit.
  const uint8_t* bytes() const { return _block.storage + _block.head; }
  /// The number of bytes.
  size_t length() const { return _block.length; }
  /// Whether this is a ZPKMutableData.
  bool isMutable() const { return _block.isMutable; }
  /// The bytes as a view, valid as long as bytes() is.
  std::string_view view() const { return {reinterpret_cast<const char*>(bytes()), length()}; }

  /// An immutable copy; an immutable object returns itself.
  virtual ZPKDataPtr copy() const;
  /// A copy that can be edited.
  ZPKMutableDataPtr mutableCopy() const;
  /// Copies the first `length` bytes, or all if there are fewer, to `buffer`. Returns the number of
  /// bytes copied.
  size_t getBytes(void* buffer, size_t length) const;
  /// A new object with the bytes of `range`; null if the range does not lie within the data.
  ZPKDataPtr subdata(ZPKRange range) const;

  /// The first occurrence of `pattern` that lies wholly within `range`, which is limited to the end
  /// of the data. Ranges count bytes. The location is ZPKNotFound if there is none, or if the
  /// pattern is empty.
  ZPKRange find(const ZPKData& pattern, ZPKRange range) const;
  /// The first occurrence of `pattern` in the whole of the data.
  ZPKRange find(const ZPKData& pattern) const { return find(pattern, {0, length()}); }

  /// Decodes the bytes as UTF-8 (RFC 3629). Null if they are not valid UTF-8; an empty string if
  /// there are none.
  std::optional<std::string> string() const;

  /// Whether `other` is data with equal bytes.
  bool isEqual(const ZPKObject& other) const override;
  /// The bytes in hexadecimal, as in h'0aff'. If there are more than 32, the first 32 and the total
  /// number.
  std::string debugDescription() const override;

  /// Equal bytes.
  friend bool operator==(const ZPKData& left, const ZPKData& right) {
    return left.view() == right.view();
  }

 protected:
  /// @cond
  // The memory of the bytes: the data is the `length` bytes that begin at `head`.
  struct Block {
    static constexpr int kCapacityBits = 62;

    explicit Block(bool isOfMutableData) : isMutable(isOfMutableData) {}

    uint8_t* storage = nullptr;  // null, a malloc(3) block, or memory that came with the object
    size_t head = 0;
    size_t length = 0;
    // All in one word, which keeps the objects of short data small.
    bool isMutable : 1;
    bool isWithinObject : 1 = false;
    uint64_t capacity : kCapacityBits = 0;  // of mutable data; the others have none
  };

  explicit ZPKData(bool isMutable) : _block(isMutable) {}

  Block _block;
  /// @endcond

 private:
  // Null in a ZPKMutableData, where it would cost atomic operations for every unit that is read.
  std::weak_ptr<const ZPKData> _self;

  friend class ZPKMutableData;
  friend class ZPIBlock;
  friend class ZPIRoom;
};
