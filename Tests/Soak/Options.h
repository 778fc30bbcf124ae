#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace soak {

/// What the command line asks for.
struct Options {
  double seconds = 60;
  int stacks = 200;
  uint64_t seed = 1;
  /// Where the report goes as JSON; empty: nowhere.
  std::string json;
  /// The folder of the Python package; empty: without Python.
  std::string python;
  /// The script that runs stacks in Python.
  std::string script;

  /// Null if the arguments are not understood.
  static std::optional<Options> fromArguments(int count, char** arguments);
};

}  // namespace soak
