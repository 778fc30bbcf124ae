#include "Utility/ZPKRegex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <array>
#include <functional>
#include <memory>
#include <utility>

#include "Utility/ZPIText.h"
#include "Utility/ZPKReportFailure.h"

namespace {

// About a tenth of a second of fruitless backtracking, far above what a useful pattern needs on a
// response of some megabytes.
constexpr uint32_t kMatchLimit = 10'000'000;
// In kibibytes. The interpreter keeps its backtracking points on the heap.
constexpr uint32_t kHeapLimit = 256 * 1024;

struct Free {
  void operator()(pcre2_compile_context* context) const { pcre2_compile_context_free(context); }
  void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

template <class T>
using Owned = std::unique_ptr<T, Free>;

const uint8_t* codeUnits(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data() != nullptr ? text.data() : "");
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

// Turns ascending byte offsets into code points, walking the text once.
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

// One walk over the matches of a valid UTF-8 text.
class Search {
 public:
  Search(const pcre2_code* code, std::string_view text)
      : _code(code),
        _text(text),
        _context(pcre2_match_context_create(nullptr)),
        _matchData(pcre2_match_data_create_from_pattern(code, nullptr)) {
    if (_context == nullptr) return;
    pcre2_set_match_limit(_context.get(), kMatchLimit);
    pcre2_set_heap_limit(_context.get(), kHeapLimit);
  }

  // Finds the next match; false when there is none, or when the search was given up.
  bool next() {
    if (_context == nullptr || _matchData == nullptr || _done) return false;
    while (_start <= _text.size()) {
      const uint32_t options = _afterEmptyMatch ? PCRE2_NOTEMPTY_ATSTART | PCRE2_ANCHORED : 0;
      const int result = match(options);
      if (result > 0) {
        const size_t begin = std::min(offset(0), offset(1));  // \K can put the begin behind the end
        _afterEmptyMatch = begin == offset(1);
        _start = offset(1);
        return true;
      }
      if (result != PCRE2_ERROR_NOMATCH || !_afterEmptyMatch) break;
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

 private:
  int match(uint32_t options) {
    const auto run = [&](uint32_t more) {
      return pcre2_match(_code, codeUnits(_text), _text.size(), _start,
                         options | PCRE2_NO_UTF_CHECK | more, _matchData.get(), _context.get());
    };
    const int result = run(0);
    // The compiled form has 32 KiB of stack; the interpreter takes the heap instead.
    return result == PCRE2_ERROR_JIT_STACKLIMIT ? run(PCRE2_NO_JIT) : result;
  }

  size_t offset(size_t index) const { return pcre2_get_ovector_pointer(_matchData.get())[index]; }

  ZPKRange range(uint32_t group, CodePointCounter& counter) const {
    const size_t begin = offset(2 * group);
    const size_t end = offset(2 * group + 1);
    if (begin == PCRE2_UNSET || end == PCRE2_UNSET) return {};
    const size_t first = counter.at(std::min(begin, end));
    return {first, counter.at(end) - first};
  }

  // CR LF is one line end, so the walk must not stop between the two.
  void stepOverOneCharacter() {
    if (_text.substr(_start).starts_with("\r\n")) {
      _start += 2;
      return;
    }
    do {
      ++_start;
    } while (_start < _text.size() && (static_cast<uint8_t>(_text[_start]) & 0xC0) == 0x80);
  }

  const pcre2_code* _code;
  std::string_view _text;
  Owned<pcre2_match_context> _context;
  Owned<pcre2_match_data> _matchData;
  size_t _start = 0;
  bool _afterEmptyMatch = false;
  bool _done = false;
};

// Calls `visit` with each match until it returns false.
void forEachMatch(const void* code, std::string_view text, ZPKRange range,
                  const std::function<bool(const Search&, CodePointCounter&)>& visit) {
  if (!ZPIIsValidUTF8(text)) return;
  const std::string_view part = ZPITextInRange(text, range);
  const size_t skipped = static_cast<size_t>(part.data() - text.data());
  CodePointCounter counter(part, ZPICodePointCount(text.substr(0, skipped)));
  Search search(static_cast<const pcre2_code*>(code), part);
  while (search.next() && visit(search, counter)) {
  }
}

}  // namespace

ZPKRegexPtr ZPKRegex::initWithPattern(std::optional<std::string_view> pattern, ZPKErrorPtr* error) {
  int number = PCRE2_ERROR_NULL;
  size_t offset = 0;
  pcre2_code* code = nullptr;
  if (pattern.has_value()) {
    const Owned<pcre2_compile_context> context(pcre2_compile_context_create(nullptr));
    if (context != nullptr) pcre2_set_newline(context.get(), PCRE2_NEWLINE_ANYCRLF);
    code = pcre2_compile(codeUnits(*pattern), pattern->size(), PCRE2_UTF, &number, &offset,
                         context.get());
  }
  if (code == nullptr) {
    if (error != nullptr) *error = compileError(number, offset);
    return nullptr;
  }
  // Where the machine has no JIT this fails, and matching goes through the interpreter.
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
  return std::make_shared<ZPKRegex>(Key(), std::string(*pattern), code);
}

ZPKRegex::ZPKRegex(Key, std::string pattern, void* code)
    : _pattern(std::move(pattern)), _code(code) {}

ZPKRegex::~ZPKRegex() { pcre2_code_free(static_cast<pcre2_code*>(_code)); }

std::optional<ZPKRegexMatch> ZPKRegex::firstMatch(std::string_view text, ZPKRange range) const {
  std::optional<ZPKRegexMatch> match;
  forEachMatch(_code, text, range, [&](const Search& search, CodePointCounter& counter) {
    match = search.currentMatch(counter);
    return false;
  });
  return match;
}

std::vector<ZPKRegexMatch> ZPKRegex::allMatches(std::string_view text, ZPKRange range) const {
  std::vector<ZPKRegexMatch> matches;
  forEachMatch(_code, text, range, [&](const Search& search, CodePointCounter& counter) {
    matches.push_back(search.currentMatch(counter));
    return true;
  });
  return matches;
}

size_t ZPKRegex::countMatches(std::string_view text, ZPKRange range) const {
  size_t count = 0;
  forEachMatch(_code, text, range, [&](const Search&, CodePointCounter&) {
    ++count;
    return true;
  });
  return count;
}
