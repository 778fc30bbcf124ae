#pragma once

#include <memory>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKTypes.h"

/// What listens for connections until it is stopped.
class ZPK_EXPORT ZPKDataServer {
 public:
  virtual ~ZPKDataServer();

  /// Ends the listening. True for success; the slot is touched on failure only.
  virtual bool stop(ZPKErrorPtr* error = nullptr) = 0;
};

using ZPKDataServerPtr = std::shared_ptr<ZPKDataServer>;
