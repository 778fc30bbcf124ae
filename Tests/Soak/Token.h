#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace soak {

/// The smallest numbered piece of traffic. Everything that a device or a station sends is made of
/// these, so that each byte can be told from every other one:
///
///     017.00003.0000042.;\n         a line of device 17, the 43rd piece of its third connection
///     017.00003.0000043=> \         a prompt (the backslash only marks the end)
///     017.00003.0000007?N0000012\n  a command of the station to that device
struct Token {
  enum class Kind { kLine, kPrompt, kCommand };

  Kind kind = Kind::kLine;
  int device = 0;
  uint32_t connection = 0;
  uint32_t number = 0;
  /// What a command asks for, and how much or how long.
  char mode = 'N';
  uint32_t amount = 0;
  /// How many bytes it has.
  size_t length = 0;
};

/// Why there is no token at the beginning of a text.
enum class NoToken { kTooShort, kMismatch };

inline constexpr std::string_view kPromptEnd = "=> ";
inline constexpr size_t kLongestToken = 27;

/// The bytes of a token.
std::string textOf(const Token& token);

/// The token at the beginning of `text`, or why there is none. Without `hasLineFeeds` the final
/// line feed of lines and commands is missing, as it is in a log.
std::optional<Token> tokenAt(std::string_view text, bool hasLineFeeds, NoToken* why);

}  // namespace soak
