/// @file
/// A list of objects.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "Utility/ZPKObject.h"
#include "Utility/ZPKValue.h"

class ZPKArray;
/// An immutable list, shared; may be null.
using ZPKArrayPtr = std::shared_ptr<const ZPKArray>;

/// A list of objects, any of which may be null. The default serializer writes arrays but does not
/// read them.
class ZPK_EXPORT ZPKArray final : public ZPKObject {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// The elements in order; a null element is a null object.
  using Elements = std::vector<ZPKObjectPtr>;

  /// An array of these elements, written in braces; without an argument, an empty one.
  static ZPKArrayPtr init(std::initializer_list<ZPKValue> elements = {});
  /// An array of elements that the caller has collected. They are shared, not copied.
  static ZPKArrayPtr init(Elements elements);

  ZPKArray(Key, Elements elements);
  ZPKArray(const ZPKArray&) = delete;
  ZPKArray& operator=(const ZPKArray&) = delete;
  ~ZPKArray() override;

  /// The number of elements, nulls included.
  size_t count() const;
  /// The element at `index`, counted from 0; null after the last.
  ZPKObjectPtr object(size_t index) const;

  /// The first element, for a range-based for loop; valid while the array lives.
  Elements::const_iterator begin() const;
  /// The place after the last element.
  Elements::const_iterator end() const;

  /// Equal elements in the same order.
  bool isEqual(const ZPKObject& other) const override;
  /// As in [1, "two"].
  std::string debugDescription() const override;

 private:
  Elements _elements;  // changed only by the destructor
};
