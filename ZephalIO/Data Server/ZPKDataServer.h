/// @file
/// The contract of everything that listens for connections.
#pragma once

#include <memory>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKTypes.h"

/// Listens for connections until it is stopped.
class ZPK_EXPORT ZPKDataServer {
 public:
  virtual ~ZPKDataServer();

  /// Stops listening. True for success; only a failure touches the slot.
  virtual bool stop(ZPKErrorPtr* error = nullptr) = 0;
};

/// A shared server.
using ZPKDataServerPtr = std::shared_ptr<ZPKDataServer>;
