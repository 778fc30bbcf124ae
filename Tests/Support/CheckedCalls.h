#pragma once

namespace support {

/// Returns the result of a system call, or throws a std::system_error that names the call if the
/// result is negative.
int checked(int result, const char* call);

/// Closes the descriptor, unless it is negative, and sets it to -1.
void closeIfOpen(int* descriptor);

}  // namespace support
