#include "ZephalConsole/Internal/Expression.h"

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "ZephalConsole/Internal/Readable.h"

namespace zephal {
namespace {

constexpr uint32_t kHeapLimitKiB = 20'000;

// Steps that one beginning may take: enough to go over the text a few times, too few for an
// expression that tries every way to cut it.
uint32_t stepsFor(std::string_view text) {
  constexpr size_t kLeast = 1'000'000;
  constexpr size_t kMost = 100'000'000;
  return static_cast<uint32_t>(std::min(kLeast + 4 * text.size(), kMost));
}

struct Free {
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
  void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
};

PCRE2_SPTR bytesOf(std::string_view text) { return reinterpret_cast<PCRE2_SPTR>(text.data()); }

[[noreturn]] void refuse(std::string_view source, const std::string& why, size_t offset) {
  throw std::invalid_argument("not a regular expression: " + internal::readablePattern(source) +
                              ": " + why + " at offset " + std::to_string(offset));
}

[[noreturn]] void refuse(std::string_view source, int code, size_t offset) {
  PCRE2_UCHAR text[256] = {};
  pcre2_get_error_message(code, text, sizeof text);
  refuse(source, reinterpret_cast<const char*>(text), offset);
}

// A match must not depend on where the search began, nor on where the text ended at that time.
void checkVerbs(std::string_view source) {
  // Settings such as (*UTF) or (*CRLF) begin an expression.
  const bool hasSetting =
      source.starts_with("(*") && source.size() > 2 && source[2] >= 'A' && source[2] <= 'Z';
  if (hasSetting) refuse(source, "settings and verbs are not supported", 0);
  const size_t commit = source.find("(*COMMIT");
  if (commit != std::string_view::npos) refuse(source, "(*COMMIT) is not supported", commit);
}

// Whether PCRE2's short cuts to where a match can begin may miss a match or find a wrong one (seen
// in 10.42): where alternatives come before the first repetition, as in `(a|).*b`, and beside
// lookarounds and atomic groups.
bool mayBeMisled(std::string_view source) {
  const size_t repetition = source.find_first_of("*+{");
  if (repetition == std::string_view::npos) return false;
  for (size_t at = source.find("(?"); at < source.size(); at = source.find("(?", at + 2)) {
    if (source.find_first_of(":imsxnJ^", at + 2) != at + 2) return true;
  }
  return source.find('(') < repetition && source.find('|') != std::string_view::npos;
}

// With \z for \Z, which would match in front of a final line feed.
std::string withPlainEnds(std::string_view source) {
  checkVerbs(source);
  std::string result(source);
  if (source.empty()) return result;
  size_t at = 0;
  while ((at = source.find('\\', at)) < source.size() - 1) {
    const char escaped = source[at + 1];
    if (escaped == 'G') refuse(source, "\\G is not supported", at);
    if (escaped == 'Z') result[at + 1] = 'z';
    at += escaped == 'c' ? 3 : 2;
    if (escaped == 'Q') at = std::min(source.find("\\E", at), source.size());
  }
  return result;
}

// The bytes with which a match can begin; none if there are many, or if PCRE2 looks for them
// quickly itself.
std::string firstBytesOf(const pcre2_code* code) {
  constexpr size_t kFew = 4;
  const uint8_t* bitmap = nullptr;
  pcre2_pattern_info(code, PCRE2_INFO_FIRSTBITMAP, &bitmap);
  if (bitmap == nullptr) return {};
  std::string bytes;
  for (unsigned byte = 0; byte < 256; ++byte) {
    if ((bitmap[byte / 8] >> (byte % 8) & 1) != 0) bytes += static_cast<char>(byte);
  }
  return bytes.size() <= kFew ? bytes : std::string();
}

std::vector<std::pair<size_t, size_t>> groupsOf(pcre2_match_data* data) {
  const PCRE2_SIZE* offsets = pcre2_get_ovector_pointer(data);
  std::vector<std::pair<size_t, size_t>> groups(pcre2_get_ovector_count(data));
  for (size_t i = 0; i < groups.size(); ++i) groups[i] = {offsets[2 * i], offsets[2 * i + 1]};
  return groups;
}

}  // namespace

Pattern::Expression::Expression(std::string_view source) : _source(source) {
  int code = 0;
  PCRE2_SIZE offset = 0;
  const std::string expression = withPlainEnds(source);
  uint32_t options =
      PCRE2_USE_OFFSET_LIMIT | PCRE2_NEVER_BACKSLASH_C | PCRE2_NEVER_UTF | PCRE2_DOLLAR_ENDONLY;
  if (mayBeMisled(expression)) options |= PCRE2_NO_START_OPTIMIZE;
  _code = pcre2_compile(bytesOf(expression), expression.size(), options, &code, &offset, nullptr);
  if (_code == nullptr) refuse(source, code, offset);
  // Without the just-in-time compiler the same results come more slowly.
  pcre2_jit_compile(_code, PCRE2_JIT_COMPLETE | PCRE2_JIT_PARTIAL_HARD);
  _firstBytes = firstBytesOf(_code);
}

Pattern::Expression::~Expression() { pcre2_code_free(_code); }

bool Pattern::Expression::matchesNothing() const {
  uint32_t result = 0;
  pcre2_pattern_info(_code, PCRE2_INFO_MATCHEMPTY, &result);
  return result != 0;
}

// Several passes, each of them many times as fast as a search for a set of bytes.
size_t Pattern::Expression::firstBegin(std::string_view text, size_t start) const {
  if (_firstBytes.empty()) return start;
  size_t first = text.size();
  for (const char byte : _firstBytes) {
    first = std::min(text.substr(0, first).find(byte, start), first);
  }
  return first;
}

Pattern::Expression::Result Pattern::Expression::search(std::string_view text, size_t start,
                                                        size_t lastStart, bool isWhole) const {
  const std::unique_ptr<pcre2_match_data, Free> data(
      pcre2_match_data_create_from_pattern(_code, nullptr));
  const std::unique_ptr<pcre2_match_context, Free> context(pcre2_match_context_create(nullptr));
  if (data == nullptr || context == nullptr) throw std::bad_alloc();
  pcre2_set_match_limit(context.get(), stepsFor(text));
  pcre2_set_heap_limit(context.get(), kHeapLimitKiB);
  pcre2_set_offset_limit(context.get(), lastStart);
  const int count = pcre2_match(_code, bytesOf(text), text.size(), start,
                                isWhole ? 0 : PCRE2_PARTIAL_HARD, data.get(), context.get());
  if (count == PCRE2_ERROR_NOMATCH) return {};
  if (count == PCRE2_ERROR_NOMEMORY) throw std::bad_alloc();
  const size_t begin = pcre2_get_ovector_pointer(data.get())[0];
  if (count == PCRE2_ERROR_PARTIAL) return {Outcome::kPartial, begin};
  if (count < 0) return {Outcome::kTooHard, start};
  return {Outcome::kMatch, begin, groupsOf(data.get())};
}

}  // namespace zephal
