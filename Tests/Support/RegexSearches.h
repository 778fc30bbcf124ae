#pragma once

#include <cstddef>

namespace support {

/// How often the code under test, on any thread, has had PCRE2 search a text: once for each match,
/// and once more to find that there are no others.
size_t regexSearches();

}  // namespace support
