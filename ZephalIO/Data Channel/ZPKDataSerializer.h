/// @file
/// The contract of everything that turns objects into bytes.
#pragma once

#include <concepts>
#include <memory>
#include <set>
#include <string>
#include <typeindex>

#include "Utility/ZPKData.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKObject.h"

/// A set of classes of objects, each by its `typeid`.
using ZPKClassSet = std::set<std::type_index>;

/// Turns one object into bytes and back. A caller's own serializer can carry the caller's own
/// classes, which derive from ZPKObject.
///
/// A class that implements this also has a static operation `supportedClasses()`, the set of the
/// classes that its format may contain; see ZPKDataSerializerClass.
///
/// A manager calls deserialize on its own thread, and several managers may share one serializer. An
/// implementation without state is safe for that.
class ZPK_EXPORT ZPKDataSerializer {
 public:
  virtual ~ZPKDataSerializer();

  /// The object's bytes, or null on failure. Null is a legal argument.
  virtual ZPKDataPtr serialize(const ZPKObjectPtr& object) = 0;
  /// The object in the bytes, or null on failure. Null and empty data are legal arguments.
  virtual ZPKObjectPtr deserialize(const ZPKDataPtr& data) = 0;
  /// The name of the format. Two ends can compare it to check that they use the same one.
  virtual std::string formatName() const = 0;
};

/// A shared serializer.
using ZPKDataSerializerPtr = std::shared_ptr<ZPKDataSerializer>;

/// A class that is a complete serializer, including its static operation.
template <class T>
concept ZPKDataSerializerClass = std::derived_from<T, ZPKDataSerializer> && requires {
  { T::supportedClasses() } -> std::convertible_to<ZPKClassSet>;
};
