#pragma once

#include <string>

#include "Support/LogCapture.h"
#include "Utility/ZPKError.h"

namespace support {

/// What a failure must look like in all its parts.
struct ExpectedFailure {
  std::string shortDomain;  // "zephal-communication" and the like
  int code;
  std::string description;
  std::string function;  // as in "ErrorLocation"
  std::string file;      // base name of the source that reports
};

/// Expects that `error` is that failure, location included.
void expectError(const ZPKErrorPtr& error, const ExpectedFailure& expected);

/// Expects that `error` is that failure and that its line is all that was logged.
void expectFailure(const ZPKErrorPtr& error, const LogCapture& log,
                   const ExpectedFailure& expected);

/// An older error to put into a slot, which shows whether a call touches the slot.
ZPKErrorPtr olderError();

}  // namespace support
