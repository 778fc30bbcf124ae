#pragma once

#include <deque>
#include <string>
#include <string_view>

namespace zephal::internal {

/// Replaces the echoes of secrets in a stream by "***", however the stream is cut.
///
/// An echo ends with a line break, and is in the line that arrives after the secret was sent. It
/// may be wrapped at the margin as `echoAt` says, with escape sequences in it. Other occurrences
/// stay, because passwords are often words, such as "root", that a prompt has too. Bytes at the end
/// that could be an echo are held back until more bytes arrive, or until `flush`.
class SecretMask {
 public:
  /// Looks for this secret in the next line that no earlier secret has taken. The lines of a secret
  /// that has several count as one secret each.
  void add(std::string_view secret);
  /// Appends what may be shown of the bytes to `shown`.
  void filter(std::string_view bytes, std::string& shown);
  /// Appends what is held back: "***" for the whole secret, which is an echo whose line break is
  /// still to come.
  void flush(std::string& shown);
  bool isIdle() const { return _secrets.empty() && _held.empty(); }
  bool holdsSomething() const { return !_held.empty(); }
  /// Whether the whole secret is held back, and nothing else.
  bool holdsEcho() const { return !_secrets.empty() && _held == _secrets.front(); }
  /// Forgets everything.
  void reset();

 private:
  size_t showSome(std::string_view bytes, std::string& shown);
  void takeSecret();

  std::deque<std::string> _secrets;
  std::string _held;
  size_t _lineLength = 0;  // of what was shown since the line began
};

}  // namespace zephal::internal
