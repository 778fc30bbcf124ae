// The failures of DescriptorOperation, as tests expect them.
#pragma once

#include <string>

#include "Support/ErrorExpectations.h"

namespace support {

/// The system's text of an errno with its number: "Bad file descriptor (9)".
std::string numberedErrorText(int number);

/// A read or write that failed with this errno.
ExpectedFailure readFailure(int number);
ExpectedFailure writeFailure(int number);

/// A failure of ZPIFileDescriptorCommunication itself.
ExpectedFailure communicationFailure(int code, const char* description, const char* function);

}  // namespace support
