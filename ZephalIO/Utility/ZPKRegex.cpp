#include "Utility/ZPKRegex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Utility/ZPIText.h"
#include "Utility/ZPKReportFailure.h"

namespace {

// A search first runs the plain compiled form, which is fast but counts its backtracking anew for
// each start position. So each start position gets a share of this sum, according to the length of
// the text. If a search needs more than its share, or more stack, the careful form repeats it.
constexpr size_t kQuickSteps = 256 * 1024 * 1024;
constexpr size_t kLeastStepsPerStart = 64;
// About a second of fruitless backtracking, far more than a useful pattern needs on a response of
// some megabytes. It is the limit of a whole walk over the matches of a text.
constexpr size_t kCarefulSteps = 100'000'000;
// A repetition counts as one step however many characters it covers; this many characters take
// about as long as one step.
constexpr size_t kCharactersPerStep = 16;
// The limit for each start position: the largest share of a quick search, and PCRE2's own limit in
// a careful one.
constexpr uint32_t kMatchLimit = 10'000'000;
// Backtracking points are kept on a stack of up to this many bytes, which is allocated only for a
// careful search and grows as needed, or without JIT on a heap of the same size.
constexpr size_t kLargestStack = 256 * 1024 * 1024;
constexpr size_t kFirstStack = 32 * 1024;

struct Free {
  void operator()(pcre2_compile_context* context) const { pcre2_compile_context_free(context); }
  void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
  void operator()(pcre2_jit_stack* stack) const { pcre2_jit_stack_free(stack); }
};

template <class T>
using Owned = std::unique_ptr<T, Free>;

const uint8_t* codeUnits(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data() != nullptr ? text.data() : "");
}

// Whether a pattern has a group beyond plain ones and options, such as a lookaround.
bool hasSpecialGroup(std::string_view pattern) {
  for (size_t at = pattern.find("(?"); at < pattern.size(); at = pattern.find("(?", at + 2)) {
    if (pattern.find_first_of(":imsxnJ^", at + 2) != at + 2) return true;
  }
  return false;
}

// Whether PCRE2's short cuts to where a match can begin may go wrong (seen in 10.42). Its
// just-in-time compiler misses matches of `(a|).*b`, where alternatives come before the first
// repetition, and finds wrong ones of atomic groups; both forms miss `(?=a)\w*a` in "a".
// Alternatives that are repeated themselves, as in `(.|\n)*b`, are safe, and too slow without the
// short cuts.
bool mayBeMisled(std::string_view pattern) {
  const size_t repetition = pattern.find_first_of("*+{");
  if (repetition == std::string_view::npos) return false;
  if (hasSpecialGroup(pattern)) return true;
  const std::string_view before = pattern.substr(0, repetition);
  const size_t group = before.find('(');
  if (group == std::string_view::npos || pattern.find('|') == std::string_view::npos) return false;
  const bool isRepeatedGroup = before.ends_with(')') && !before.ends_with("\\)") &&
                               before.find_first_of("([", group + 1) == std::string_view::npos;
  return !isRepeatedGroup;
}

// The compiled form, or null with the number and the offset of the mistake.
Owned<pcre2_code> compile(std::string_view pattern, uint32_t options, int* number, size_t* offset) {
  const Owned<pcre2_compile_context> context(pcre2_compile_context_create(nullptr));
  if (context == nullptr) {
    *number = PCRE2_ERROR_NOMEMORY;
    return nullptr;
  }
  pcre2_set_newline(context.get(), PCRE2_NEWLINE_ANYCRLF);
  // Positions count code points, so no match may end within one.
  options |= PCRE2_UTF | PCRE2_NEVER_BACKSLASH_C;
  if (mayBeMisled(pattern)) options |= PCRE2_NO_START_OPTIMIZE;
  Owned<pcre2_code> code(
      pcre2_compile(codeUnits(pattern), pattern.size(), options, number, offset, context.get()));
  // If the machine has no JIT, this fails, and the interpreter does the matching.
  if (code != nullptr) pcre2_jit_compile(code.get(), PCRE2_JIT_COMPLETE);
  return code;
}

ZPKErrorPtr compileError(int number, size_t offset) {
  std::array<uint8_t, 256> buffer{};
  pcre2_get_error_message(number, buffer.data(), buffer.size());
  ZPKError::UserInfo userInfo;
  userInfo.emplace(
      ZPKErrorDescriptionKey,
      ZPKLoggingFormat("%s at offset %d", reinterpret_cast<const char*>(buffer.data()), offset));
  userInfo.emplace(ZPKErrorLocationKey, ZPIErrorLocation({"+[ZPKRegex initWithPattern:error:]"}));
  return ZPKError::init("PCRE2", number, std::move(userInfo));
}

// Turns ascending byte offsets into code points while walking the text one time.
class CodePointCounter {
 public:
  explicit CodePointCounter(std::string_view text, size_t first) : _text(text), _count(first) {}

  size_t at(size_t offset) {
    if (offset < _offset) return _count - ZPICodePointCount(_text.substr(offset, _offset - offset));
    _count += ZPICodePointCount(_text.substr(_offset, offset - _offset));
    _offset = offset;
    return _count;
  }

 private:
  std::string_view _text;
  size_t _offset = 0;
  size_t _count;
};

Owned<pcre2_match_context> makeContext(size_t matchLimit) {
  Owned<pcre2_match_context> context(pcre2_match_context_create(nullptr));
  if (context == nullptr) return nullptr;
  pcre2_set_match_limit(context.get(), static_cast<uint32_t>(matchLimit));
  pcre2_set_heap_limit(context.get(), kLargestStack / 1024);
  return context;
}

// A pattern that is compiled to call back before each of its items. This makes it several times
// slower, but it can count its steps over all start positions and stop when there are too many.
class CarefulForm {
 public:
  explicit CarefulForm(std::string_view pattern)
      : _context(makeContext(kMatchLimit)),
        _stack(pcre2_jit_stack_create(kFirstStack, kLargestStack, nullptr)) {
    int number = 0;
    size_t offset = 0;
    _code = compile(pattern, PCRE2_AUTO_CALLOUT, &number, &offset);
    if (_context == nullptr) return;
    pcre2_set_callout(_context.get(), countSteps, this);
    pcre2_jit_stack_assign(_context.get(), nullptr, _stack.get());
  }
  CarefulForm(const CarefulForm&) = delete;
  CarefulForm& operator=(const CarefulForm&) = delete;

  int match(std::string_view text, size_t start, uint32_t options, pcre2_match_data* matchData) {
    if (_code == nullptr || _context == nullptr) return PCRE2_ERROR_NOMEMORY;
    _position = start;
    if (_stack == nullptr) options |= PCRE2_NO_JIT;
    return pcre2_match(_code.get(), codeUnits(text), text.size(), start, options, matchData,
                       _context.get());
  }

 private:
  static int countSteps(pcre2_callout_block* block, void* form) {
    auto* self = static_cast<CarefulForm*>(form);
    const size_t position = block->current_position;
    const size_t walked =
        position > self->_position ? position - self->_position : self->_position - position;
    self->_position = position;
    self->_steps += 1 + walked / kCharactersPerStep;
    return self->_steps > kCarefulSteps ? PCRE2_ERROR_CALLOUT : 0;
  }

  Owned<pcre2_code> _code;
  const Owned<pcre2_match_context> _context;
  const Owned<pcre2_jit_stack> _stack;
  size_t _position = 0;
  size_t _steps = 0;
};

// One walk over the matches of a valid UTF-8 text.
class Search {
 public:
  Search(const pcre2_code* code, std::string_view pattern, std::string_view text)
      : _code(code),
        _pattern(pattern),
        _text(text),
        _context(makeContext(
            std::clamp<size_t>(kQuickSteps / (text.size() + 1), kLeastStepsPerStart, kMatchLimit))),
        _matchData(pcre2_match_data_create_from_pattern(code, nullptr)) {}

  // Finds the next match; false if there is none, or if the search was abandoned.
  bool next() {
    if (_context == nullptr || _matchData == nullptr || _done) return false;
    while (_start <= _text.size()) {
      const uint32_t options = _afterEmptyMatch ? PCRE2_NOTEMPTY_ATSTART | PCRE2_ANCHORED : 0;
      const int result = match(options | PCRE2_NO_UTF_CHECK);
      if (result > 0 && isNewMatch()) {
        _afterEmptyMatch = begin() == end();
        _start = end();
        return true;
      }
      const bool goesOn = result > 0 || (result == PCRE2_ERROR_NOMATCH && _afterEmptyMatch);
      if (!goesOn) break;
      stepOverOneCharacter();
      _afterEmptyMatch = false;
    }
    _done = true;
    return false;
  }

  ZPKRegexMatch currentMatch(CodePointCounter& counter) const {
    std::vector<ZPKRange> groups;
    const uint32_t count = pcre2_get_ovector_count(_matchData.get());
    groups.reserve(count);
    for (uint32_t group = 0; group < count; ++group) groups.push_back(range(group, counter));
    return ZPKRegexMatch(std::move(groups));
  }

  // Where the current match ends, in bytes.
  size_t end() const { return offset(1); }

 private:
  int match(uint32_t options) {
    const int result = pcre2_match(_code, codeUnits(_text), _text.size(), _start, options,
                                   _matchData.get(), _context.get());
    const bool isGivenUp = result == PCRE2_ERROR_MATCHLIMIT ||
                           result == PCRE2_ERROR_JIT_STACKLIMIT || result == PCRE2_ERROR_HEAPLIMIT;
    if (!isGivenUp) return result;
    if (!_careful.has_value()) _careful.emplace(_pattern);
    return _careful->match(_text, _start, options, _matchData.get());
  }

  size_t offset(size_t index) const { return pcre2_get_ovector_pointer(_matchData.get())[index]; }

  // Because of \K in a lookaround, a match can begin before the place that the walk has reached, or
  // be empty without PCRE2 noticing. In both cases the walk would not get any further.
  bool isNewMatch() const { return begin() >= _start && (end() > _start || !_afterEmptyMatch); }

  // Where the whole match begins; \K in a lookahead can put PCRE2's start after its end.
  size_t begin() const { return std::min(offset(0), offset(1)); }

  ZPKRange range(uint32_t group, CodePointCounter& counter) const {
    const size_t from = offset(2 * group);
    const size_t to = offset(2 * group + 1);
    if (from == PCRE2_UNSET || to == PCRE2_UNSET) return {};
    const size_t first = counter.at(std::min(from, to));
    return {first, counter.at(to) - first};
  }

  // CR LF is one line break, so the walk must not stop between the two.
  void stepOverOneCharacter() {
    if (_text.substr(_start).starts_with("\r\n")) {
      _start += 2;
      return;
    }
    do {
      ++_start;
    } while (_start < _text.size() && ZPIIsContinuationByte(_text[_start]));
  }

  const pcre2_code* const _code;
  const std::string_view _pattern;
  const std::string_view _text;
  const Owned<pcre2_match_context> _context;
  const Owned<pcre2_match_data> _matchData;
  std::optional<CarefulForm> _careful;  // created when it is first needed
  size_t _start = 0;
  bool _afterEmptyMatch = false;
  bool _done = false;
};

// Calls `visit` with each match until it returns false.
void forEachMatch(const void* code, std::string_view pattern, std::string_view text, ZPKRange range,
                  const std::function<bool(const Search&, CodePointCounter&)>& visit) {
  if (!ZPIIsValidUTF8(text)) return;
  const std::string_view part = ZPITextInRange(text, range);
  const size_t skipped = static_cast<size_t>(part.data() - text.data());
  CodePointCounter counter(part, ZPICodePointCount(text.substr(0, skipped)));
  Search search(static_cast<const pcre2_code*>(code), pattern, part);
  while (search.next() && visit(search, counter)) {
  }
}

}  // namespace

ZPKRegexPtr ZPKRegex::initWithPattern(std::optional<std::string_view> pattern, ZPKErrorPtr* error) {
  int number = PCRE2_ERROR_NULL;
  size_t offset = 0;
  Owned<pcre2_code> code;
  if (pattern.has_value()) code = compile(*pattern, 0, &number, &offset);
  if (code == nullptr) {
    if (error != nullptr) *error = compileError(number, offset);
    return nullptr;
  }
  return std::make_shared<ZPKRegex>(Key(), std::string(*pattern), code.release());
}

ZPKRegex::ZPKRegex(Key, std::string pattern, void* code)
    : _pattern(std::move(pattern)), _code(code) {}

ZPKRegex::~ZPKRegex() { pcre2_code_free(static_cast<pcre2_code*>(_code)); }

const std::string& ZPKRegex::pattern() const { return _pattern; }

std::optional<ZPKRegexMatch> ZPKRegex::firstMatch(std::string_view text, ZPKRange range) const {
  std::optional<ZPKRegexMatch> match;
  forEachMatch(_code, _pattern, text, range, [&](const Search& search, CodePointCounter& counter) {
    match = search.currentMatch(counter);
    return false;
  });
  return match;
}

std::vector<ZPKRegexMatch> ZPKRegex::allMatches(std::string_view text, ZPKRange range) const {
  std::vector<ZPKRegexMatch> matches;
  forEachMatch(_code, _pattern, text, range, [&](const Search& search, CodePointCounter& counter) {
    matches.push_back(search.currentMatch(counter));
    return true;
  });
  return matches;
}

size_t ZPICountMatches(const ZPKRegex& regex, std::string_view text, size_t* end) {
  size_t count = 0;
  size_t lastByte = 0;
  const auto visit = [&](const Search& search, CodePointCounter&) {
    ++count;
    lastByte = search.end();
    return true;
  };
  forEachMatch(regex._code, regex._pattern, text, ZPKRegex::wholeText(), visit);
  if (count > 0) *end = ZPICodePointCount(text.substr(0, lastByte));
  return count;
}

size_t ZPKRegex::countMatches(std::string_view text, ZPKRange range) const {
  size_t count = 0;
  forEachMatch(_code, _pattern, text, range, [&](const Search&, CodePointCounter&) {
    ++count;
    return true;
  });
  return count;
}
