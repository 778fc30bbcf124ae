#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zephal::internal {

/// Finds a text in a stream that grows: each byte is looked at one time (Knuth, Morris and Pratt),
/// and while nothing of the text has begun, only for the one of its bytes that consoles print
/// least.
class TextSearch {
 public:
  explicit TextSearch(std::string_view text);

  /// Goes on with the next bytes; returns how many of them it took: all, or those up to the end of
  /// the first occurrence.
  size_t take(std::string_view bytes);
  bool isFound() const { return _matched == _text.size(); }
  /// How many bytes at the end of what was taken are, or begin, an occurrence.
  size_t matched() const { return _matched; }
  size_t length() const { return _text.size(); }
  void reset() { _matched = 0; }

 private:
  size_t nextBegin(std::string_view bytes, size_t from) const;
  size_t nextKnownBegin(std::string_view bytes, size_t at, size_t end) const;
  size_t nextPair(std::string_view bytes, size_t at, size_t end) const;

  const std::string _text;
  size_t _rare = 0;               // where in the text its rarest byte is
  std::vector<size_t> _fallback;  // by how much matched: how much of it begins the text again
  size_t _matched = 0;
};

}  // namespace zephal::internal
