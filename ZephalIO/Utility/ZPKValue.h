/// @file
/// Anything from which an object can be built.
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
  /// A null object.
  ZPKValue(std::nullptr_t);
  /// A ZPKString with a copy of a C string; a null object for a null pointer.
  ZPKValue(const char* text);
  /// A ZPKString with a copy of the text.
  ZPKValue(std::string_view text);
  /// A ZPKString of the text.
  ZPKValue(std::string text);
  /// A copy of the number.
  ZPKValue(const ZPKNumber& number);
  /// A ZPKNumber of any integer, floating-point value or bool.
  template <class T>
  requires std::is_arithmetic_v<T> ZPKValue(T number) : ZPKValue(ZPKNumber(number)) {}
  /// Any object, which is shared, except that a ZPKMutableData is copied.
  template <class T>
  requires std::derived_from<T, ZPKObject> ZPKValue(std::shared_ptr<T> object)
      : ZPKValue(AnyObject(), std::move(object)) {}
  /// A ZPKDictionary of these entries.
  ZPKValue(std::initializer_list<ZPKDictionaryEntry> entries);

  /// The object, or null.
  const ZPKObjectPtr& object() const;
  /// The same as object, for arguments that are objects.
  operator ZPKObjectPtr() const;

 private:
  ZPKValue(AnyObject, ZPKObjectPtr object);

  ZPKObjectPtr _object;
};
