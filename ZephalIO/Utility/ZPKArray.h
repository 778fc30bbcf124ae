#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "Utility/ZPKObject.h"
#include "Utility/ZPKValue.h"

class ZPKArray;
using ZPKArrayPtr = std::shared_ptr<const ZPKArray>;

/// A list of objects, any of which may be null. The default serializer writes arrays but does not
/// read them.
class ZPK_EXPORT ZPKArray final : public ZPKObject {
  struct Key {
    explicit Key() = default;
  };

 public:
  using Elements = std::vector<ZPKObjectPtr>;

  static ZPKArrayPtr init(std::initializer_list<ZPKValue> elements = {});
  static ZPKArrayPtr init(Elements elements);

  ZPKArray(Key, Elements elements);
  ZPKArray(const ZPKArray&) = delete;
  ZPKArray& operator=(const ZPKArray&) = delete;
  ~ZPKArray() override;

  size_t count() const;
  /// The element at `index`, counted from 0; null after the last.
  ZPKObjectPtr object(size_t index) const;

  Elements::const_iterator begin() const;
  Elements::const_iterator end() const;

  /// Equal elements in the same order.
  bool isEqual(const ZPKObject& other) const override;
  /// As in [1, "two"].
  std::string debugDescription() const override;

 private:
  Elements _elements;  // changed only by the destructor
};
