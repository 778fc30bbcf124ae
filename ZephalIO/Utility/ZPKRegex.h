/// @file
/// A regular expression.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKRegexMatch.h"
#include "Utility/ZPKTypes.h"

/// A compiled regular expression, in the dialect of pcre2pattern(3).
///
/// The text is UTF-8, and no other option is set. CR, LF and CR LF all end a line, so "." matches
/// none of them: the library searches console text. Ranges count code points; "\C", which could
/// split one, does not compile.
///
/// A search that backtracks for more than about a second, or needs more than 256 MiB, is abandoned
/// and counts as no match. So does a text that is not valid UTF-8. Nothing is thrown and no stack
/// overflows, however long the text is. Immutable, so it may be used on any thread, also on several
/// at the same time.
class ZPK_EXPORT ZPKRegex {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// The compiled expression. Null, with an error of the domain "PCRE2" in the slot and nothing in
  /// the log, if the pattern does not compile or is null.
  static ZPKRegexPtr initWithPattern(std::optional<std::string_view> pattern,
                                     ZPKErrorPtr* error = nullptr);

  ZPKRegex(Key, std::string pattern, void* code);
  ZPKRegex(const ZPKRegex&) = delete;
  ZPKRegex& operator=(const ZPKRegex&) = delete;
  ~ZPKRegex();

  /// The source text.
  const std::string& pattern() const;

  /// The whole of a text, however long it is.
  static constexpr ZPKRange wholeText() { return {0, ZPKNotFound}; }

  /// The first match within `range`. That part of the text is searched like a text of its own: "^"
  /// and "$" match at its ends. The range is limited to the end of the text.
  std::optional<ZPKRegexMatch> firstMatch(std::string_view text,
                                          ZPKRange range = wholeText()) const;
  /// All matches within `range`, from left to right and without overlap.
  std::vector<ZPKRegexMatch> allMatches(std::string_view text, ZPKRange range = wholeText()) const;
  /// The number of matches that allMatches returns.
  size_t countMatches(std::string_view text, ZPKRange range = wholeText()) const;

 private:
  // Counts the matches in a whole text, and sets `end` to the end of the last one, in code points.
  // Without a match `end` stays unchanged.
  friend size_t ZPICountMatches(const ZPKRegex& regex, std::string_view text, size_t* end);

  const std::string _pattern;
  void* const _code;  // a pcre2_code, kept out of this header
};
