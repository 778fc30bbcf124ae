// Which system calls fail in which ways, and what a caller must then see.
#pragma once

#include <string>
#include <vector>

#include "Faults/Trial.h"
#include "Support/SystemCalls.h"

namespace support {

/// A system call, and the errors that its manual page lists.
struct FaultRow {
  const char* call;
  std::vector<int> errors;
};

const std::vector<FaultRow>& faultTable();

/// Whether the call is made all the same, and then said to have failed.
bool isMadeAnyway(const Fault& fault, const std::string& scenario);

/// What a failed call can lead to: an error, or a failure without one.
struct Effect {
  /// The errno, in the domain of files.
  static constexpr int kErrno = -1;
  /// The end of a console's line, with the errno's text.
  static constexpr int kEnd = -2;
  /// A failure of the resolver, by its own numbers.
  static constexpr int kResolver = -3;

  const char* site;
  int code;
  const char* text = "";
  /// The failure may have no error; errno tells the reason, except where a server prints it.
  bool isSilent = false;
  /// The errors after which the call is made again, so that nobody notices.
  std::vector<int> retried = {};
};

/// The effects of a failure of `calls[index]`; none if nobody may notice it.
std::vector<Effect> effectsOf(const std::vector<SystemCall>& calls, size_t index, Trial::Kind kind);

}  // namespace support
