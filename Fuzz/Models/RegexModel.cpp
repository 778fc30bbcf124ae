#include "Models/RegexModel.h"

#include <algorithm>

#include "Models/TextModel.h"

namespace {

// More than nearly all searches take, and over soon with the sanitizers too.
constexpr size_t kMostSteps = 20000;

}  // namespace

RegexModel::RegexModel(FuzzInput& input, Text letters, Text lineBreaks)
    : _letters(std::move(letters)), _lineBreaks(std::move(lineBreaks)) {
  _root = makeSequence(input, 0);
}

RegexModel::Sequence RegexModel::makeSequence(FuzzInput& input, size_t depth) {
  Sequence sequence;
  const size_t count = input.below(4);
  for (size_t i = 0; i < count; ++i) sequence.push_back(makeNode(input, depth));
  return sequence;
}

RegexModel::Node RegexModel::makeNode(FuzzInput& input, size_t depth) {
  Node node;
  const size_t kind = input.below(depth < 2 ? 6 : 5);
  const char32_t first = _letters[input.below(_letters.size())];
  if (kind == 0) {
    _pattern += '.';
  } else if (kind <= 3) {
    node.kind = Node::Kind::kOneOf;
    node.letters = Text(1, first);
    _pattern += encodedUTF8(node.letters);
  } else if (kind == 4) {
    node.kind = Node::Kind::kOneOf;
    node.letters = {first, _letters[input.below(_letters.size())]};
    _pattern += '[' + encodedUTF8(node.letters) + ']';
  } else {
    node.kind = Node::Kind::kGroup;
    _pattern += '(';
    const size_t count = 1 + input.below(2);
    for (size_t i = 0; i < count; ++i) {
      if (i > 0) _pattern += '|';
      node.choices.push_back(makeSequence(input, depth + 1));
    }
    _pattern += ')';
  }
  makeRepetition(input, node);
  return node;
}

// A group that can match nothing is not repeated: what that means differs between implementations.
// Neither is a group in which something is repeated, since such a search can take very long.
void RegexModel::makeRepetition(FuzzInput& input, Node& node) {
  const auto isUnfit = [](const Sequence& sequence) {
    return canBeEmpty(sequence) || std::any_of(sequence.begin(), sequence.end(), [](const Node& n) {
             return n.kind == Node::Kind::kGroup || n.most > 1;
           });
  };
  if (std::any_of(node.choices.begin(), node.choices.end(), isUnfit)) return;
  constexpr size_t kUnlimited = 1'000'000;
  const size_t kind = input.below(8);
  if (kind < 5) return;
  node.least = kind == 6 ? 1 : 0;
  node.most = kind == 5 ? 1 : kUnlimited;
  _pattern += kind == 5 ? '?' : (kind == 6 ? '+' : '*');
  node.isLazy = input.below(4) == 0;
  if (node.isLazy) _pattern += '?';
}

bool RegexModel::canBeEmpty(const Sequence& sequence) {
  return std::all_of(sequence.begin(), sequence.end(), [](const Node& node) {
    return node.least == 0 || std::any_of(node.choices.begin(), node.choices.end(), canBeEmpty);
  });
}

std::optional<RegexModel::Match> RegexModel::firstMatch(const Text& text, size_t start) const {
  for (size_t begin = start; begin <= text.size(); ++begin) {
    if (const auto end = matchAt(text, begin, true)) return Match(begin, *end);
  }
  return std::nullopt;
}

std::vector<RegexModel::Match> RegexModel::allMatches(const Text& text) const {
  std::vector<Match> matches;
  size_t at = 0;
  bool mayBeEmpty = true;
  while (at <= text.size()) {
    const auto end = matchAt(text, at, mayBeEmpty);
    if (end.has_value()) {
      matches.emplace_back(at, *end);
      mayBeEmpty = *end > at;
      at = *end;
      continue;
    }
    at += text.compare(at, 2, U"\r\n") == 0 ? 2 : 1;
    mayBeEmpty = true;
  }
  return matches;
}

std::optional<size_t> RegexModel::matchAt(const Text& text, size_t start, bool mayBeEmpty) const {
  std::optional<size_t> end;
  _steps = 0;
  matchSequence(text, _root, 0, start, [&](size_t at) {
    if (at == start && !mayBeEmpty) return false;
    end = at;
    return true;
  });
  return end;
}

bool RegexModel::matchSequence(const Text& text, const Sequence& sequence, size_t index, size_t at,
                               const Then& then) const {
  if (index == sequence.size()) return then(at);
  return matchNode(text, sequence[index], 0, at, [&](size_t next) {
    return matchSequence(text, sequence, index + 1, next, then);
  });
}

// Matches the node again, after it matched `times` times, and then the rest.
bool RegexModel::matchNode(const Text& text, const Node& node, size_t times, size_t at,
                           const Then& then) const {
  const bool mayStop = times >= node.least;
  if (mayStop && node.isLazy && then(at)) return true;
  const auto again = [&](size_t next) { return matchNode(text, node, times + 1, next, then); };
  if (times < node.most && matchOnce(text, node, at, again)) return true;
  return mayStop && !node.isLazy && then(at);
}

bool RegexModel::matchOnce(const Text& text, const Node& node, size_t at, const Then& then) const {
  if (++_steps > kMostSteps) throw TooManySteps();
  if (node.kind == Node::Kind::kGroup) {
    return std::any_of(node.choices.begin(), node.choices.end(), [&](const Sequence& choice) {
      return matchSequence(text, choice, 0, at, then);
    });
  }
  if (at == text.size()) return false;
  const bool isOneOf = node.kind == Node::Kind::kOneOf;
  const Text& set = isOneOf ? node.letters : _lineBreaks;
  return (set.find(text[at]) != Text::npos) == isOneOf && then(at + 1);
}
