#pragma once

#include <cstddef>

namespace support {

/// How often the code under test, on any thread, has had PCRE2 search a text: once for each match
/// of a walk, and once for its end.
size_t regexSearches();

}  // namespace support
