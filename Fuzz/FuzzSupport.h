#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "ZephalLogging.h"

/// Ends the process if `holds` is false, which a fuzzer reports as a finding.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "Not so: %s\n", what);
  std::abort();
}

/// Drops the library's log lines, since nearly every input causes one.
inline void silenceLog() {
  static const bool isSilent = [] {
    ZPKLoggingSetSink([](int, std::string_view) {});
    return true;
  }();
  static_cast<void>(isSilent);
}
