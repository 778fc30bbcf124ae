#include "RawRegex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstdlib>

namespace {

const uint8_t* codeUnits(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

}  // namespace

RawRegex::RawRegex(std::string_view pattern, bool checksText) : _checksText(checksText) {
  pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
  pcre2_set_newline(context, PCRE2_NEWLINE_ANYCRLF);
  int number = 0;
  size_t offset = 0;
  pcre2_code* code =
      pcre2_compile(codeUnits(pattern), pattern.size(), PCRE2_UTF, &number, &offset, context);
  pcre2_compile_context_free(context);
  if (code == nullptr) std::exit(1);
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
  _code = code;
  _matchData = pcre2_match_data_create_from_pattern(code, nullptr);
}

RawRegex::~RawRegex() {
  pcre2_match_data_free(static_cast<pcre2_match_data*>(_matchData));
  pcre2_code_free(static_cast<pcre2_code*>(_code));
}

size_t RawRegex::countMatches(std::string_view text) const {
  auto* matchData = static_cast<pcre2_match_data*>(_matchData);
  size_t count = 0;
  size_t start = 0;
  // The first search checks the whole text.
  uint32_t options = _checksText ? 0 : PCRE2_NO_UTF_CHECK;
  while (pcre2_match(static_cast<pcre2_code*>(_code), codeUnits(text), text.size(), start, options,
                     matchData, nullptr) > 0) {
    ++count;
    start = pcre2_get_ovector_pointer(matchData)[1];
    options = PCRE2_NO_UTF_CHECK;
  }
  return count;
}
