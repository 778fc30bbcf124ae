/// @file
/// What a console throws because of the device or the line.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "ZephalConsole/Export.h"

namespace zephal {

/// The base of everything that a console throws because of the device or the line. what() is one
/// text for a person, which names the URL; it never contains a secret that sendSecret sent.
class ZEPHAL_CONSOLE_EXPORT Error : public std::runtime_error {
 public:
  /// what() is the URL and then the message.
  Error(const std::string& message, std::string domain, int code, std::string url);
  ~Error() override;

  /// "zephal-console" with one of the codes of the classes below; or the domain and code of the
  /// part that reported the failure, such as "POSIX" with an errno.
  const std::string& domain() const noexcept { return _domain; }
  /// The code within the domain.
  int code() const noexcept { return _code; }
  /// The console's URL.
  const std::string& url() const noexcept { return _url; }

 private:
  std::string _domain;
  int _code;
  std::string _url;
};

/// The domain of the console's own errors.
inline constexpr std::string_view kConsoleDomain = "zephal-console";

/// The codes in that domain.
enum class ErrorCode {
  kOpen = 1,           ///< An OpenError that is not the system's.
  kTimeout = 2,        ///< A Timeout.
  kDisconnected = 3,   ///< A Disconnected.
  kDeviceSwapped = 4,  ///< A DeviceSwapped.
  kCancelled = 5,      ///< A Cancelled.
  kLoginRefused = 6,   ///< A LoginRefused.
  kNoMatch = 7,        ///< A NoMatch.
  kTooHard = 8,        ///< An Error: an expression takes too many steps.
};

/// The line cannot be opened. what() says why, in the system's words. For a failed system call the
/// domain is "POSIX" and the code the errno; for a host name that does not resolve the domain is
/// "getaddrinfo" and the code that of getaddrinfo(3).
class ZEPHAL_CONSOLE_EXPORT OpenError : public Error {
 public:
  using Error::Error;
  ~OpenError() override;
};

/// An operation that waited for the device and ended without a result. The base of Timeout and
/// Disconnected.
class ZEPHAL_CONSOLE_EXPORT WaitError : public Error {
 public:
  /// what() is made of the reason, what was waited for, and the end of what was received.
  WaitError(const std::string& reason, ErrorCode code, std::string url, std::string waitedFor,
            std::string received);
  ~WaitError() override;

  /// What was waited for, as text.
  const std::string& waitedFor() const noexcept { return _waitedFor; }
  /// What had arrived and is unread, without escape sequences. It stays unread after a Timeout.
  const std::string& received() const noexcept { return _received; }

 private:
  std::string _waitedFor;
  std::string _received;
};

/// The time limit has passed. Code 2.
class ZEPHAL_CONSOLE_EXPORT Timeout : public WaitError {
 public:
  using WaitError::WaitError;
  ~Timeout() override;
};

/// The line has ended, or was closed. Code 3. `reopen` opens it again.
class ZEPHAL_CONSOLE_EXPORT Disconnected : public WaitError {
 public:
  using WaitError::WaitError;
  ~Disconnected() override;
};

/// A device with a different chip identifier has answered. Code 4. Until `reopen`, every operation
/// fails so.
class ZEPHAL_CONSOLE_EXPORT DeviceSwapped : public Error {
 public:
  using Error::Error;
  ~DeviceSwapped() override;
};

/// `cancel` ended the operation. Code 5.
class ZEPHAL_CONSOLE_EXPORT Cancelled : public Error {
 public:
  using Error::Error;
  ~Cancelled() override;
};

/// The device did not accept the user name or the password. Code 6.
class ZEPHAL_CONSOLE_EXPORT LoginRefused : public Error {
 public:
  using Error::Error;
  ~LoginRefused() override;
};

/// The device has answered, but the answer does not contain what was to be picked out of it. Code
/// 7; what() shows the answer's end.
class ZEPHAL_CONSOLE_EXPORT NoMatch : public Error {
 public:
  /// what() is the message and the end of the answer.
  NoMatch(const std::string& message, std::string url, std::string answer);
  ~NoMatch() override;
  /// The whole answer.
  const std::string& answer() const noexcept { return _answer; }

 private:
  std::string _answer;
};

}  // namespace zephal
