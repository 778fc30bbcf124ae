#pragma once

#include <concepts>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKObject.h"

struct ZPKDictionaryEntry;

/// Stands for an object where objects are built. It converts implicitly from text, a number, a
/// bool, any object, or a list of entries in braces, which becomes a dictionary:
///
///     const ZPKObjectPtr message = ZPKValue{{"name", "dut-7"}, {"limits", {{"low", 1}}}};
///
/// A ZPKMutableData is copied, so that the object does not change with it. A null pointer becomes a
/// null object.
class ZPK_EXPORT ZPKValue {
  struct AnyObject {
    explicit AnyObject() = default;
  };

 public:
  ZPKValue(std::nullptr_t);
  ZPKValue(const char* text);
  ZPKValue(std::string_view text);
  ZPKValue(std::string text);
  ZPKValue(const ZPKNumber& number);
  template <class T>
  requires std::is_arithmetic_v<T> ZPKValue(T number) : ZPKValue(ZPKNumber(number)) {}
  template <class T>
  requires std::derived_from<T, ZPKObject> ZPKValue(std::shared_ptr<T> object)
      : ZPKValue(AnyObject(), std::move(object)) {}
  ZPKValue(std::initializer_list<ZPKDictionaryEntry> entries);

  /// The object, or null.
  const ZPKObjectPtr& object() const;
  operator ZPKObjectPtr() const;

 private:
  ZPKValue(AnyObject, ZPKObjectPtr object);

  ZPKObjectPtr _object;
};
