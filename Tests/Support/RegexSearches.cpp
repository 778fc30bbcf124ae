#include "Support/RegexSearches.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <atomic>

namespace {

std::atomic<size_t> searches{0};

}  // namespace

// The linker directs the calls to this one (see Tests/CMakeLists.txt).
extern "C" {
int __real_pcre2_match_8(const pcre2_code*, PCRE2_SPTR, PCRE2_SIZE, PCRE2_SIZE, uint32_t,
                         pcre2_match_data*, pcre2_match_context*);
int __wrap_pcre2_match_8(const pcre2_code*, PCRE2_SPTR, PCRE2_SIZE, PCRE2_SIZE, uint32_t,
                         pcre2_match_data*, pcre2_match_context*);

int __wrap_pcre2_match_8(const pcre2_code* code, PCRE2_SPTR text, PCRE2_SIZE length,
                         PCRE2_SIZE start, uint32_t options, pcre2_match_data* matchData,
                         pcre2_match_context* context) {
  searches.fetch_add(1, std::memory_order_relaxed);
  return __real_pcre2_match_8(code, text, length, start, options, matchData, context);
}
}

namespace support {

size_t regexSearches() { return searches.load(std::memory_order_relaxed); }

}  // namespace support
