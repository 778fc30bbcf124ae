#pragma once

#include <optional>
#include <string>

/// What looks at each chunk for a prompt with a chip identifier.
struct SwapModel {
  std::string expected = {};  // empty: detection is off
  std::optional<std::string> delimiter = "] :-) ";
  bool drops = true;

  /// The identifier of a different device in the chunk; null if there is none.
  std::optional<std::string> swapIn(const std::string& chunk) const;
  /// What is left of a chunk.
  std::string take(const std::string& chunk) const {
    return drops && swapIn(chunk).has_value() ? "" : chunk;
  }
};
