#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the process if `holds` is false, which a fuzzer reports as a finding.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "Not so: %s\n", what);
  std::abort();
}
