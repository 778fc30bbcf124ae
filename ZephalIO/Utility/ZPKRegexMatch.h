/// @file
/// One match of a regular expression.
#pragma once

#include <utility>
#include <vector>

#include "Utility/ZPKTypes.h"

/// One match of a ZPKRegex. A plain value. Positions and lengths count the code points of the text
/// that was searched, from its start.
class ZPKRegexMatch {
 public:
  /// `groups` contains the whole match first, then the capture groups by their numbers.
  explicit ZPKRegexMatch(std::vector<ZPKRange> groups) : _groups(std::move(groups)) {}

  /// The whole match.
  ZPKRange range() const { return groupRange(0); }
  /// Capture group `group`, counted from 1; 0 is the whole match. The location is ZPKNotFound if
  /// the group took no part in the match, or if the pattern has no such group.
  ZPKRange groupRange(size_t group) const {
    return group < _groups.size() ? _groups[group] : ZPKRange{};
  }

 private:
  std::vector<ZPKRange> _groups;
};
