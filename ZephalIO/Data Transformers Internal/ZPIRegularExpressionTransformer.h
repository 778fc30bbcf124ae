#pragma once

#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKRegex.h"

/// Holds a stream back until an expression matches, and then hands out everything up to the end of
/// the last match. All held bytes are searched again on every call that changed them: what is held
/// long and comes in many pieces costs the square of its length. No lock.
///
/// Two habits that callers have come to rely on:
/// - a match that ends where the held bytes end is handed out and stays held, so that it comes out
///   again with the next match, until reset;
/// - the end of a match, counted in code points, is used as a number of bytes: behind text that is
///   not ASCII the cut falls short of the match's end.
///
/// Held bytes that are not valid UTF-8 have no match.
class ZPIRegularExpressionTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIRegularExpressionTransformer> initWithRegularExpression(
      ZPKRegexPtr regex);

  ZPIRegularExpressionTransformer(Key, ZPKRegexPtr regex);

  void modifyData(ZPKMutableData* data) override;
  /// Drops the held bytes; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

 private:
  void search();

  const ZPKMutableDataPtr _buffer;
  const ZPKRegexPtr _regex;

  // What the last search of the held bytes found, for as long as they are the same.
  bool _isSearched = false;
  size_t _matches = 0;
  size_t _end = 0;  // of the last match, in code points
};

using ZPIRegularExpressionTransformerPtr = std::shared_ptr<ZPIRegularExpressionTransformer>;
