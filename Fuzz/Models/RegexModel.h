#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FuzzInput.h"

/// A small regular expression and a plain backtracking search for it: characters, ".", classes,
/// groups, alternatives, and greedy or lazy repetitions.
class RegexModel {
 public:
  using Text = std::u32string;
  /// Begin and end.
  using Match = std::pair<size_t, size_t>;

  /// An expression from the input. Its characters are those of `letters`; "." matches none of
  /// `lineBreaks`.
  RegexModel(FuzzInput& input, Text letters, Text lineBreaks);

  /// The expression in UTF-8, as PCRE2 reads it.
  const std::string& pattern() const { return _pattern; }

  /// A search took so many steps that nothing can be said about its result.
  struct TooManySteps {};

  /// The first match that begins at `start` or later. May throw TooManySteps.
  std::optional<Match> firstMatch(const Text& text, size_t start) const;
  /// All matches from left to right, without overlap. After an empty match, one that is not empty
  /// may begin at the same place. CR LF is one character for a step from place to place. May throw
  /// TooManySteps.
  std::vector<Match> allMatches(const Text& text) const;

 private:
  struct Node;
  using Sequence = std::vector<Node>;
  struct Node {
    enum class Kind { kOneOf, kAnything, kGroup };
    Kind kind = Kind::kAnything;
    Text letters = {};                   // of kOneOf
    std::vector<Sequence> choices = {};  // of kGroup
    size_t least = 1;
    size_t most = 1;
    bool isLazy = false;
  };
  using Then = std::function<bool(size_t)>;

  Sequence makeSequence(FuzzInput& input, size_t depth);
  Node makeNode(FuzzInput& input, size_t depth);
  void makeRepetition(FuzzInput& input, Node& node);
  static bool canBeEmpty(const Sequence& sequence);

  std::optional<size_t> matchAt(const Text& text, size_t start, bool mayBeEmpty) const;
  bool matchSequence(const Text& text, const Sequence& sequence, size_t index, size_t at,
                     const Then& then) const;
  bool matchNode(const Text& text, const Node& node, size_t times, size_t at,
                 const Then& then) const;
  bool matchOnce(const Text& text, const Node& node, size_t at, const Then& then) const;

  const Text _letters;
  const Text _lineBreaks;
  std::string _pattern;
  Sequence _root;
  mutable size_t _steps = 0;  // of the search at one place
};
