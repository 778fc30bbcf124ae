#pragma once

#include <deque>
#include <string>
#include <string_view>

namespace zephal::internal {

/// Replaces the echoes of secrets in a stream by "***", however the stream is cut.
///
/// An echo ends with a line break, and is in the line that arrives after the secret was sent. Other
/// occurrences stay, because passwords are often words, such as "root", that a prompt has too.
/// Bytes at the end that could be an echo are held back until more bytes arrive, or until `flush`,
/// for which a whole secret at the end is an echo.
class SecretMask {
 public:
  /// Looks for this secret in the next line that no earlier secret has taken.
  void add(std::string_view secret);
  /// Appends what may be shown of the bytes to `shown`.
  void filter(std::string_view bytes, std::string& shown);
  /// Appends what is held back.
  void flush(std::string& shown);
  bool isIdle() const { return _secrets.empty() && _held.empty(); }
  /// Forgets everything.
  void reset();

 private:
  void holdBackEnd(std::string_view line, std::string& shown);

  std::deque<std::string> _secrets;
  std::string _held;
};

}  // namespace zephal::internal
