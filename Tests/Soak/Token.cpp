#include "Soak/Token.h"

#include <algorithm>
#include <cstdio>

namespace soak {

namespace {

// Device, connection and number, with the points between them.
constexpr size_t kHead = 17;
constexpr size_t kAmountDigits = 7;

bool isNumber(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char byte) { return byte >= '0' && byte <= '9'; });
}

uint32_t numberIn(std::string_view text) {
  uint32_t number = 0;
  for (const char digit : text) number = number * 10 + static_cast<uint32_t>(digit - '0');
  return number;
}

bool isHead(std::string_view text) {
  return text[3] == '.' && text[9] == '.' && isNumber(text.substr(0, 3)) &&
         isNumber(text.substr(4, 5)) && isNumber(text.substr(10, 7));
}

// The length of a token that ends in a line feed, unless something else is in its place.
std::optional<size_t> lengthOfLine(std::string_view text, size_t length, bool hasLineFeeds,
                                   NoToken* why) {
  *why = NoToken::kTooShort;
  if (!hasLineFeeds) return text.size() < length - 1 ? std::nullopt : std::optional(length - 1);
  if (text.size() < length) return std::nullopt;
  *why = NoToken::kMismatch;
  return text[length - 1] == '\n' ? std::optional(length) : std::nullopt;
}

std::optional<Token> finished(Token token, std::optional<size_t> length) {
  if (!length.has_value()) return std::nullopt;
  token.length = *length;
  return token;
}

std::optional<Token> commandAt(std::string_view text, Token token, bool hasLineFeeds,
                               NoToken* why) {
  token.kind = Token::Kind::kCommand;
  const auto length = lengthOfLine(text, kLongestToken, hasLineFeeds, why);
  if (!length.has_value()) return std::nullopt;
  const std::string_view amount = text.substr(kHead + 2, kAmountDigits);
  *why = NoToken::kMismatch;
  if (!isNumber(amount)) return std::nullopt;
  token.mode = text[kHead + 1];
  token.amount = numberIn(amount);
  return finished(token, length);
}

}  // namespace

std::string textOf(const Token& token) {
  char text[kLongestToken * 2];
  int length = std::snprintf(text, sizeof text, "%03d.%05u.%07u", token.device,
                             static_cast<unsigned>(token.connection % 100000),
                             static_cast<unsigned>(token.number % 10000000));
  char* const end = text + length;
  const size_t room = sizeof text - static_cast<size_t>(length);
  if (token.kind == Token::Kind::kCommand) {
    length += std::snprintf(end, room, "?%c%07u\n", token.mode,
                            static_cast<unsigned>(token.amount % 10000000));
  } else {
    length += std::snprintf(end, room, "%s", token.kind == Token::Kind::kLine ? ".;\n" : "=> ");
  }
  return {text, static_cast<size_t>(length)};
}

std::optional<Token> tokenAt(std::string_view text, bool hasLineFeeds, NoToken* why) {
  *why = NoToken::kTooShort;
  if (text.size() < kHead + 2) return std::nullopt;
  *why = NoToken::kMismatch;
  if (!isHead(text)) return std::nullopt;
  Token token;
  token.device = static_cast<int>(numberIn(text.substr(0, 3)));
  token.connection = numberIn(text.substr(4, 5));
  token.number = numberIn(text.substr(10, 7));
  const std::string_view end = text.substr(kHead);
  if (end[0] == '?') return commandAt(text, token, hasLineFeeds, why);
  if (end.starts_with(".;")) {
    return finished(token, lengthOfLine(text, kHead + 3, hasLineFeeds, why));
  }
  token.kind = Token::Kind::kPrompt;
  if (end.starts_with(kPromptEnd)) return finished(token, kHead + kPromptEnd.size());
  if (end == kPromptEnd.substr(0, end.size())) *why = NoToken::kTooShort;
  return std::nullopt;
}

}  // namespace soak
