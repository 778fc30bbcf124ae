// Errors as tests create and inspect them.
#pragma once

#include <string>

#include "Utility/ZPKError.h"

namespace support {

/// An error with this code, of a domain that the library does not have.
ZPKErrorPtr errorWithCode(int code);

/// An error that a scripted channel can fail with: domain "below", code 42, "from below".
ZPKErrorPtr errorFromBelow();

/// The parts of an error; 0 and "" for null, so that a test whose error is missing fails but
/// continues.
int codeOf(const ZPKErrorPtr& error);
std::string descriptionOf(const ZPKErrorPtr& error);

}  // namespace support
