// What the console does with what arrives: escape sequences are removed, and patterns are found,
// however the bytes are cut, as in the whole text at one time.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzInput.h"
#include "Models/EscapeModel.h"
#include "Models/RegexModel.h"
#include "Require.h"
#include "ZephalConsole/Internal/EscapeFilter.h"
#include "ZephalConsole/Internal/Matcher.h"
#include "ZephalConsole/Internal/PatternSearch.h"
#include "ZephalConsole/Pattern.h"

namespace {

using zephal::internal::EscapeFilter;
using zephal::internal::Matcher;
using zephal::internal::PatternSearch;

constexpr const char* kEscapes = "\x1b\x1b[[0;m]P_\\\a\x18(b\n\r";

std::u32string widened(std::string_view bytes) {
  return std::u32string(bytes.begin(), bytes.end());
}

// What is looked for: texts and expressions, with what finds them in a whole text.
class Patterns {
 public:
  explicit Patterns(FuzzInput& input) {
    const size_t count = 1 + input.below(3);
    for (size_t i = 0; i < count; ++i) add(input);
  }

  const std::vector<zephal::Pattern>& all() const { return _patterns; }

  // The first match that begins at `start` or later: index, begin and end.
  struct Found {
    size_t index;
    size_t begin;
    size_t end;
  };
  std::optional<Found> firstIn(const std::string& text, size_t start) const {
    std::optional<Found> first;
    for (size_t i = 0; i < _patterns.size(); ++i) {
      const auto match = find(i, text, start);
      if (!match.has_value() || (first.has_value() && match->first >= first->begin)) continue;
      first = Found{i, match->first, match->second};
    }
    return first;
  }

 private:
  void add(FuzzInput& input) {
    if (input.flag()) {
      _models.push_back(std::make_unique<RegexModel>(input, U"abc", U"\n"));
      _patterns.push_back(zephal::regex(_models.back()->pattern()));
    } else {
      _models.push_back(nullptr);
      _patterns.emplace_back("a" + input.textOf("aab\n", 4));
    }
  }

  std::optional<RegexModel::Match> find(size_t index, const std::string& text, size_t start) const {
    if (_models[index] != nullptr) return _models[index]->firstMatch(widened(text), start);
    const size_t at = text.find(_patterns[index].source(), start);
    if (at == std::string::npos) return std::nullopt;
    return RegexModel::Match(at, at + _patterns[index].source().size());
  }

  std::vector<zephal::Pattern> _patterns;
  std::vector<std::unique_ptr<RegexModel>> _models;  // null for a text
};

// Reads a text that arrives in pieces, and looks for a pattern again and again.
class Reading {
 public:
  Reading(const Patterns& patterns, std::string whole)
      : _patterns(patterns), _whole(std::move(whole)), _matcher(patterns.all()) {}

  void arrive(std::string_view bytes) {
    _arrived += bytes;
    while (look(false)) {
    }
  }

  void finish() {
    while (look(true)) {
    }
    const auto left = _patterns.firstIn(_whole, _start);
    require(!left.has_value() || left->end == left->begin, "no match is left");
  }

 private:
  bool look(bool isFinal) {
    const std::string_view unread = std::string_view(_arrived).substr(_start);
    const auto found = _matcher.look(unread, _start, isFinal);
    if (!found.has_value()) return false;
    const auto expected = _patterns.firstIn(_whole, _start);
    require(expected.has_value() && found->index == expected->index &&
                found->groups.front().first == expected->begin &&
                found->groups.front().second == expected->end,
            "the match is that of the whole text");
    _matcher = Matcher(_patterns.all());
    if (expected->end == _start) return false;  // an empty match would be found for ever
    _start = expected->end;
    return true;
  }

  const Patterns& _patterns;
  const std::string _whole;
  std::string _arrived;
  size_t _start = 0;
  Matcher _matcher;
};

void run(FuzzInput input) {
  const Patterns patterns(input);
  std::vector<std::string> chunks;
  std::string sent;
  while (!input.isUsedUp() && sent.size() < 160) {
    chunks.push_back(input.flag() ? input.textOf("aabbc\n", 9) : input.textOf(kEscapes, 20));
    if (input.below(32) == 0) chunks.back().append(input.below(80), ';');
    sent += chunks.back();
  }
  Reading reading(patterns, withoutEscapes(sent));
  EscapeFilter filter;
  std::string text;
  for (const std::string& chunk : chunks) {
    const size_t before = text.size();
    filter.filter(chunk, text);
    reading.arrive(std::string_view(text).substr(before));
  }
  require(text == withoutEscapes(sent), "the escape sequences are removed");
  reading.finish();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  try {
    run(FuzzInput(bytes, size));
  } catch (const PatternSearch::TooHard&) {
    // The error that a caller gets for an expression that takes too many steps.
  } catch (const RegexModel::TooManySteps&) {
  }
  return 0;
}
