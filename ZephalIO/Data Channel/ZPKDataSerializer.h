#pragma once

#include <memory>
#include <set>
#include <string>
#include <typeindex>

#include "Utility/ZPKData.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKObject.h"

/// A set of classes of objects, each by its `typeid`.
using ZPKClassSet = std::set<std::type_index>;

/// What turns one object into bytes and back.
///
/// A class that implements this also has a static operation `supportedClasses()`, which gives the
/// ZPKClassSet of the objects that its format may carry.
class ZPK_EXPORT ZPKDataSerializer {
 public:
  virtual ~ZPKDataSerializer() = default;

  /// The object's bytes, or null on failure.
  virtual ZPKDataPtr serialize(const ZPKObjectPtr& object) = 0;
  /// The object that the bytes hold, or null on failure. Null and empty data are legal arguments.
  virtual ZPKObjectPtr deserialize(const ZPKDataPtr& data) = 0;
  /// The name of the format, by which two ends can tell whether they speak the same one.
  virtual std::string formatName() const = 0;
};

using ZPKDataSerializerPtr = std::shared_ptr<ZPKDataSerializer>;
