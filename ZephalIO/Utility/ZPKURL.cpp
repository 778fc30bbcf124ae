#include "Utility/ZPKURL.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "Utility/ZPKOptions.h"

namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// The characters that RFC 3986 allows anywhere in a URL, the escape sign included.
bool isURLCharacter(char c) {
  constexpr std::string_view kOthers = "-._~:/?#[]@!$&'()*+,;=%";
  return isAlpha(c) || isDigit(c) || kOthers.find(c) != std::string_view::npos;
}

bool isScheme(std::string_view text) {
  if (text.empty() || !isAlpha(text.front())) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
  });
}

bool hasOnlyLegalCharacters(std::string_view text) {
  for (size_t at = 0; at < text.size(); ++at) {
    if (!isURLCharacter(text[at])) return false;
    if (text[at] != '%') continue;
    if (text.size() - at < 3 || !isHexDigit(text[at + 1]) || !isHexDigit(text[at + 2]))
      return false;
    if (text[at + 1] == '0' && text[at + 2] == '0') return false;
  }
  return true;
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      decoded.push_back(text[at]);
      continue;
    }
    unsigned byte = 0;
    std::from_chars(text.data() + at + 1, text.data() + at + 3, byte, 16);
    decoded.push_back(static_cast<char>(byte));
    at += 2;
  }
  return decoded;
}

bool hasNoneOf(std::string_view marks, std::string_view text) {
  return text.find_first_of(marks) == std::string_view::npos;
}

// "v" 1*HEXDIG "." 1*( unreserved / sub-delims / ":" )
bool isFutureAddress(std::string_view text) {
  const std::string_view version = text.substr(0, text.find('.'));
  return (version.starts_with('v') || version.starts_with('V')) && version.size() > 1 &&
         std::all_of(version.begin() + 1, version.end(), isHexDigit) &&
         text.size() > version.size() + 1 && hasNoneOf("%[", text);
}

// Whether `text` may be in the brackets of a host.
bool isAddressLiteral(std::string_view text) {
  in6_addr address{};
  return ::inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1 || isFutureAddress(text);
}

// Removes from `rest` everything in front of the first of `marks`, and returns it.
std::string_view takeUpTo(std::string_view marks, std::string_view& rest) {
  const std::string_view taken = rest.substr(0, std::min(rest.find_first_of(marks), rest.size()));
  rest.remove_prefix(taken.size());
  return taken;
}

}  // namespace

ZPKURLPtr ZPKURL::initWithString(std::optional<std::string_view> string) {
  if (!string.has_value() || !hasOnlyLegalCharacters(*string)) return nullptr;
  auto url = std::make_shared<ZPKURL>(Key());
  url->_absoluteString = *string;
  return url->parse(url->_absoluteString) ? url : nullptr;
}

ZPKURL::ZPKURL(Key) {}

ZPKURL::~ZPKURL() = default;

const std::optional<std::string>& ZPKURL::scheme() const { return _scheme; }

const std::optional<std::string>& ZPKURL::host() const { return _host; }

std::optional<int64_t> ZPKURL::port() const { return _port; }

const std::string& ZPKURL::path() const { return _path; }

const std::vector<ZPKURLQueryItem>& ZPKURL::queryItems() const { return _queryItems; }

const std::string& ZPKURL::absoluteString() const { return _absoluteString; }

std::string ZPKURL::debugDescription() const { return _absoluteString; }

// The split of RFC 3986, appendix B: scheme, authority, path, query, fragment.
bool ZPKURL::parse(std::string_view rest) {
  std::string_view candidate = rest;
  const std::string_view scheme = takeUpTo(":/?#", candidate);
  if (candidate.starts_with(':')) {
    if (!isScheme(scheme)) return false;
    _scheme = scheme;
    rest = candidate.substr(1);
  }
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    if (!parseAuthority(takeUpTo("/?#", rest))) return false;
  }
  const std::string_view path = takeUpTo("?#", rest);
  if (!hasNoneOf("[]", path)) return false;
  _path = percentDecoded(path);
  if (rest.starts_with('?')) {
    rest.remove_prefix(1);
    if (!parseQuery(takeUpTo("#", rest))) return false;
  }
  if (rest.starts_with('#')) rest.remove_prefix(1);
  return hasNoneOf("#[]", rest);
}

// [ userinfo "@" ] host [ ":" port ]
bool ZPKURL::parseAuthority(std::string_view authority) {
  const size_t at = authority.rfind('@');
  if (at != std::string_view::npos) {
    if (!hasNoneOf("@[]", authority.substr(0, at))) return false;
    authority.remove_prefix(at + 1);
  }
  std::string_view host;
  if (authority.starts_with('[')) {
    const size_t end = authority.find(']');
    if (end == std::string_view::npos) return false;
    host = authority.substr(1, end - 1);
    if (!isAddressLiteral(host)) return false;
    authority.remove_prefix(end + 1);
  } else {
    host = takeUpTo(":", authority);
    if (!hasNoneOf("[]", host)) return false;
  }
  _host = percentDecoded(host);
  if (authority.empty()) return true;
  if (authority.front() != ':') return false;
  authority.remove_prefix(1);
  if (!std::all_of(authority.begin(), authority.end(), isDigit)) return false;
  if (!authority.empty()) _port = ZPKIntegerFromString(authority);
  return true;
}

bool ZPKURL::parseQuery(std::string_view query) {
  if (!hasNoneOf("[]", query)) return false;
  bool hasMore = !query.empty();
  while (hasMore) {
    std::string_view value = takeUpTo("&", query);
    hasMore = !query.empty();
    if (hasMore) query.remove_prefix(1);
    const std::string_view name = takeUpTo("=", value);
    ZPKURLQueryItem item{percentDecoded(name), std::nullopt};
    if (!value.empty()) item.value = percentDecoded(value.substr(1));
    _queryItems.push_back(std::move(item));
  }
  return true;
}
