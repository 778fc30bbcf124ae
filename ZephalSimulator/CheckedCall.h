#pragma once

#include <string>

namespace zephal {

/// Throws a std::system_error with this errno and a text such as "simulated device: bind
/// /tmp/socket: Address already in use".
[[noreturn]] void throwFailure(int number, const std::string& call, const std::string& address);

/// Returns the result of a system call; throws if it is negative.
int checkedCall(int result, const std::string& call, const std::string& address = {});

/// Closes the descriptor, unless it is negative, and sets it to -1.
void closeDescriptor(int* descriptor);

}  // namespace zephal
