#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Soak/Token.h"

namespace soak {

/// Bytes that should not be missing, or there.
struct Damage {
  uint64_t lost = 0;
  uint64_t doubled = 0;
  uint64_t foreign = 0;

  bool operator==(const Damage&) const = default;
  bool isNone() const { return *this == Damage{}; }
  Damage& operator+=(const Damage& other);
};

/// Checks that a stream is made of the tokens of one device, each exactly once and in order, and
/// counts what is not.
///
/// Lost are bytes missing between two that arrived on one connection; doubled are those that came
/// again, or are too many; foreign are those of another device or connection, or altered ones.
class StreamChecker {
 public:
  /// The tokens of this device, either commands or what the device sends.
  StreamChecker(int device, bool isOfCommands, bool hasLineFeeds);

  /// Lets the next token begin a connection that is younger than all before.
  void startConnection();
  /// Skips commands in what a device sends: its echoes.
  void expectEchoes() { _hasEchoes = true; }
  /// The next bytes.
  void feed(std::string_view bytes);
  /// Ends the stream. A part of a token may be left if the connection was cut.
  void finish(bool wasCut);

  const Damage& damage() const { return _damage; }
  /// The number of the token that is due, which is how many have come on this connection.
  uint32_t next() const { return _isConnectionDue ? 0 : _next; }
  uint32_t connection() const { return _connection; }
  uint64_t prompts() const { return _prompts; }
  uint64_t bytes() const { return _bytes; }
  /// The token that came last.
  const Token& last() const { return _last; }
  /// A part of the first bytes that were wrong, with what was due there; empty if all is well.
  const std::string& evidence() const { return _evidence; }

 private:
  std::string_view rest() const { return std::string_view(_buffer).substr(_head); }
  bool takeOne();
  void take(const Token& token, std::string_view junk);
  void compareNumbers(const Token& token, std::string_view junk);
  size_t firstTokenAfterJunk() const;
  void drop(size_t count);
  void note(std::string_view what);

  const int _device;
  const bool _isOfCommands;
  const bool _hasLineFeeds;
  bool _hasEchoes = false;
  bool _isConnectionDue = true;
  uint32_t _connection = 0;
  uint32_t _next = 0;
  uint64_t _prompts = 0;
  uint64_t _bytes = 0;
  Token _last;
  Damage _damage;
  std::string _evidence;
  std::string _buffer;  // what is not yet a whole token, from `_head` on
  size_t _head = 0;
};

}  // namespace soak
