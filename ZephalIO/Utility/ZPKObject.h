#pragma once

#include <memory>

#include "Utility/ZPKExport.h"

/// The root of what a serializer carries. A caller's own serializer derives its own classes from
/// it.
class ZPK_EXPORT ZPKObject {
 public:
  virtual ~ZPKObject() = default;
};

using ZPKObjectPtr = std::shared_ptr<const ZPKObject>;
