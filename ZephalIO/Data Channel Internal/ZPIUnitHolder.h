#pragma once

#include "Utility/ZPKMutableData.h"

/// A channel that may hold whole units of earlier reads. Its next read would hand one up at once,
/// whatever its time.
class ZPIUnitHolder {
 public:
  /// The next held unit, or null if there is none. The channel below is not asked.
  virtual ZPKMutableDataPtr takeHeldUnit() = 0;

 protected:
  ~ZPIUnitHolder() = default;
};
