/// @file
/// A parsed URL.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKTypes.h"

/// One item of a URL's query, percent-decoded. An item without "=" has no value.
struct ZPKURLQueryItem {
  /// What is in front of the first "=".
  std::string name;
  /// What follows it, possibly empty; null without a "=".
  std::optional<std::string> value;

  /// The same name and value.
  friend bool operator==(const ZPKURLQueryItem&, const ZPKURLQueryItem&) = default;
};

/// A URL, split by RFC 3986 and percent-decoded. Immutable, so it may be used on any thread.
class ZPK_EXPORT ZPKURL {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// The parsed URL; null if the text is null or breaks the RFC's grammar: a character that must be
  /// escaped (a blank, a control character, a byte above 0x7E, or one of "<>\^`{|}), a "%" without
  /// two hexadecimal digits, a wrong character in the scheme, a port that is not a number, brackets
  /// around anything except an IP address or anywhere else, a second "@" or "#", or a colon in the
  /// first path segment without a scheme. An escaped NUL is rejected too: no device or socket has
  /// such a name, and the system would truncate it there.
  static ZPKURLPtr initWithString(std::optional<std::string_view> string);

  explicit ZPKURL(Key);
  ZPKURL(const ZPKURL&) = delete;
  ZPKURL& operator=(const ZPKURL&) = delete;
  ~ZPKURL();

  /// The scheme as written; null for a relative reference.
  const std::optional<std::string>& scheme() const;
  /// The host, without the brackets of an IPv6 literal; null if the URL has no authority. It may be
  /// empty.
  const std::optional<std::string>& host() const;
  /// The port; null if none is given. A number of more than 63 bits becomes the largest 63-bit
  /// number.
  std::optional<int64_t> port() const;
  /// The path; it may be empty.
  const std::string& path() const;
  /// The query's items in order, one more than there are "&"; none for an empty query.
  const std::vector<ZPKURLQueryItem>& queryItems() const;
  /// The whole URL as written.
  const std::string& absoluteString() const;
  /// The same text as absoluteString.
  std::string debugDescription() const;

 private:
  bool parse(std::string_view rest);
  bool parseAuthority(std::string_view authority);
  bool parseQuery(std::string_view query);

  std::string _absoluteString;
  std::optional<std::string> _scheme;
  std::optional<std::string> _host;
  std::optional<int64_t> _port;
  std::string _path;
  std::vector<ZPKURLQueryItem> _queryItems;
};
