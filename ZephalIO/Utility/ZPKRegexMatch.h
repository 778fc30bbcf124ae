#pragma once

#include <utility>
#include <vector>

#include "Utility/ZPKTypes.h"

/// One match of a ZPKRegex. A plain value. Positions and lengths count the code points of the text
/// that was searched, from its start.
class ZPKRegexMatch {
 public:
  /// `groups` holds the whole match first and then every capture group by its number.
  explicit ZPKRegexMatch(std::vector<ZPKRange> groups) : _groups(std::move(groups)) {}

  /// The whole match.
  ZPKRange range() const { return groupRange(0); }
  /// Capture group `group`, counted from 1; 0 is the whole match. The location is ZPKNotFound for a
  /// group that took no part in the match, and for one that the pattern does not have.
  ZPKRange groupRange(size_t group) const {
    return group < _groups.size() ? _groups[group] : ZPKRange{};
  }

 private:
  std::vector<ZPKRange> _groups;
};
