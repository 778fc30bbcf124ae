#pragma once

namespace support {

/// The result of a system call; a negative one is thrown as a std::system_error that names the
/// call.
int checked(int result, const char* call);

/// Closes the descriptor, unless it is negative, and makes it -1.
void closeIfOpen(int* descriptor);

}  // namespace support
