#pragma once

#include "Utility/ZPKTypes.h"

/// Resets one object after another, whatever fails, and keeps the first failure.
class ZPIResetWalk {
 public:
  /// Resets a channel or a transformer.
  template <class Member>
  void reset(Member& member) {
    ZPKErrorPtr error;
    if (member.reset(&error) || !_isGood) return;
    _isGood = false;
    _firstError = error;
  }

  /// Whether all succeeded; if not, the slot gets the first failure's error, which may be null.
  bool finish(ZPKErrorPtr* error) const {
    if (!_isGood && error != nullptr) *error = _firstError;
    return _isGood;
  }

 private:
  bool _isGood = true;
  ZPKErrorPtr _firstError;
};
