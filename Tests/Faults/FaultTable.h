// Which system calls fail in which ways, and what a caller must then see.
#pragma once

#include <string>
#include <vector>

#include "Support/SystemCalls.h"

namespace support {

/// A system call, and the errors that its manual page lists.
struct FaultRow {
  const char* call;
  std::vector<int> errors;
};

const std::vector<FaultRow>& faultTable();

/// What a failed call can lead to: an error, or a failure without one.
struct Effect {
  const char* site;
  /// -1: the errno, in the domain of files.
  int code;
  const char* text = "";
  /// The failure may have no error; errno tells the reason, except where a server prints it.
  bool isSilent = false;
  /// The errors after which the call is made again, so that nobody notices.
  std::vector<int> retried = {};
};

/// The effects of a failure of `calls[index]`; none if nobody may notice it.
std::vector<Effect> effectsOf(const std::vector<SystemCall>& calls, size_t index);

}  // namespace support
