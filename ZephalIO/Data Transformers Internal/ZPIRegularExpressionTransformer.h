#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKRegex.h"

/// Holds back a stream until an expression matches, and then outputs everything up to the end of
/// the last match. Every call that changes the buffered bytes searches all of them again, so a long
/// response that arrives in many pieces costs the square of its length. Not thread-safe.
///
/// Callers have come to rely on two habits:
/// - if a match ends at the end of the buffered bytes, they are output and stay buffered, so they
///   are output again with the next match, until reset;
/// - the end of a match is counted in code points but used as a number of bytes: after text that is
///   not ASCII, the output ends before the match does.
///
/// Buffered bytes that are not valid UTF-8 have no match.
class ZPIRegularExpressionTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIRegularExpressionTransformer> initWithRegularExpression(
      ZPKRegexPtr regex);

  ZPIRegularExpressionTransformer(Key, ZPKRegexPtr regex);

  void modifyData(ZPKMutableData* data) override;
  /// Drops the buffered bytes; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

 private:
  void search();

  const ZPKMutableDataPtr _buffer;
  const ZPKRegexPtr _regex;

  // The result of the last search, valid until the buffered bytes change.
  bool _isSearched = false;
  size_t _matches = 0;
  size_t _end = 0;  // of the last match, in code points
};

using ZPIRegularExpressionTransformerPtr = std::shared_ptr<ZPIRegularExpressionTransformer>;
