/// @file
/// The base class of the objects that a serializer carries, and how to compare and cast them.
#pragma once

#include <concepts>
#include <memory>
#include <string>

#include "Utility/ZPKExport.h"

class ZPKObject;
/// An immutable object, shared; may be null.
using ZPKObjectPtr = std::shared_ptr<const ZPKObject>;

/// The base class of everything that a serializer carries: ZPKDictionary, ZPKString, ZPKNumber,
/// ZPKData, ZPKArray, and a caller's own classes for a caller's own serializer.
///
/// Objects are immutable and shared: to copy any object, however large, copy its pointer. Every
/// thread may read it. Comparing and destroying do not recurse, so nesting has no limit.
class ZPK_EXPORT ZPKObject {
 public:
  virtual ~ZPKObject();

  /// Whether `other` has the same value. Numbers compare like ZPKNumber's ==, except that here
  /// not-a-number equals itself. An object of a class that does not override this equals only
  /// itself.
  virtual bool isEqual(const ZPKObject& other) const;

  /// One line for a log or a debugger.
  virtual std::string debugDescription() const;

 protected:
  /// For derived classes.
  ZPKObject() = default;
  /// For derived classes that are plain values; a ZPKObject on its own is never copied.
  ZPKObject(const ZPKObject&) = default;
  /// For derived classes that are plain values, like the copy constructor.
  ZPKObject& operator=(const ZPKObject&) = default;
};

/// isEqual for objects that may be null: null equals only null.
ZPK_EXPORT bool ZPKObjectsAreEqual(const ZPKObjectPtr& left, const ZPKObjectPtr& right);

/// `object` as a `T`; null if it is of a different class, or null:
///
///     if (const auto message = ZPKObjectCast<ZPKDictionary>(object)) use(message->string("name"));
template <std::derived_from<ZPKObject> T>
std::shared_ptr<const T> ZPKObjectCast(const ZPKObjectPtr& object) {
  return std::dynamic_pointer_cast<const T>(object);
}
