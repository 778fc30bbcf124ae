#include "Soak/Options.h"

#include <cstdlib>
#include <string_view>

namespace soak {

std::optional<Options> Options::fromArguments(int count, char** arguments) {
  Options options;
  for (int index = 1; index + 1 < count; index += 2) {
    const std::string_view name = arguments[index];
    const char* const value = arguments[index + 1];
    if (name == "--seconds") {
      options.seconds = std::strtod(value, nullptr);
    } else if (name == "--stacks") {
      options.stacks = static_cast<int>(std::strtol(value, nullptr, 10));
    } else if (name == "--seed") {
      options.seed = std::strtoull(value, nullptr, 10);
    } else if (name == "--json") {
      options.json = value;
    } else if (name == "--python") {
      options.python = value;
    } else if (name == "--script") {
      options.script = value;
    } else {
      return std::nullopt;
    }
  }
  const bool isSound =
      count % 2 == 1 && options.seconds > 0 && options.stacks >= 10 && options.stacks <= 400;
  return isSound ? std::optional(options) : std::nullopt;
}

}  // namespace soak
