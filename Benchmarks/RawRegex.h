#pragma once

#include <cstddef>
#include <string_view>

/// PCRE2 alone, with the options that the library sets: UTF-8, any line end, the JIT.
class RawRegex {
 public:
  /// Ends the program if the pattern does not compile. `checksText` lets PCRE2 check that a text is
  /// UTF-8, which a program has to do for bytes from a device; else they are taken to be.
  RawRegex(std::string_view pattern, bool checksText);
  RawRegex(const RawRegex&) = delete;
  RawRegex& operator=(const RawRegex&) = delete;
  ~RawRegex();

  /// How many matches a text has; none of them may be empty.
  size_t countMatches(std::string_view text) const;

 private:
  const bool _checksText;
  void* _code;
  void* _matchData;
};
