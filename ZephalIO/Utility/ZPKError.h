/// @file
/// A failure: domain, code, description, place.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKTypes.h"

/// The key of an error's description in its user information.
inline constexpr std::string_view ZPKErrorDescriptionKey = "Description";
/// The key of the place in the source that reported the error.
inline constexpr std::string_view ZPKErrorLocationKey = "ErrorLocation";

/// A failure, as an operation stores it in its caller's error slot.
///
/// Immutable, so it may be read on any thread. An operation that fails returns false or null, fills
/// the slot if the caller passed one, and writes a line to the log in either case. Test the result,
/// not the slot: a success leaves the slot unchanged, and a few failures have no error.
///
/// A few failures write no line, such as a refused connection, a log file that the system does not
/// open, and a null base channel or command. Two failures write two lines: the end of a connection
/// during a read without a time limit, and a read filter that is not hexadecimal.
class ZPK_EXPORT ZPKError {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Texts by their keys.
  using UserInfo = std::map<std::string, std::string, std::less<>>;

  /// An error with this domain, code and user information.
  static ZPKErrorPtr init(std::string domain, int code, UserInfo userInfo);

  ZPKError(Key, std::string domain, int code, UserInfo userInfo);
  ZPKError(const ZPKError&) = delete;
  ZPKError& operator=(const ZPKError&) = delete;
  ~ZPKError();

  /// The part of the system that reports: "zephalbench." and one of "zephal-communication"
  /// (channels, transformers, factories, services), "zephal-commchannel" (ZPKCommStack),
  /// "zephal-commloggerchannel" (ZPKCommLoggerStack), "zephal-dataconversion". An error of the
  /// system itself has the domain "POSIX" (the code is the errno) or "PCRE2". The log line for an
  /// unreadable archive shows an error of the domain "CBOR".
  const std::string& domain() const;
  /// What went wrong, as a number within the domain; every operation lists its own.
  int code() const;
  /// The texts by their keys. An error of the library has exactly the two keys above.
  const UserInfo& userInfo() const;

  /// The message, the value of ZPKErrorDescriptionKey; empty if there is none.
  std::string description() const;
  /// The library's version and the site's file, function and line, the value of
  /// ZPKErrorLocationKey; empty if there is none.
  std::string location() const;
  /// Domain, code and description on one line, as a log shows an error.
  std::string debugDescription() const;

 private:
  std::string valueForKey(std::string_view key) const;

  const std::string _domain;
  const int _code;
  const UserInfo _userInfo;
};
