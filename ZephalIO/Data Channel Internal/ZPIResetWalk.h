#pragma once

#include <utility>

#include "Utility/ZPKTypes.h"

/// Resets one object after another, even after a failure, and keeps the first failure.
class ZPIResetWalk {
 public:
  /// Resets a channel or a transformer.
  template <class Member>
  void reset(Member& member) {
    ZPKErrorPtr error;
    if (!member.reset(&error)) fail(std::move(error));
  }

  /// Records a missing member: a failure without an error.
  void resetNothing() { fail(nullptr); }

  /// Returns whether all succeeded. If not, the slot gets the error of the first failure, which may
  /// be null.
  bool finish(ZPKErrorPtr* error) const {
    if (!_isGood && error != nullptr) *error = _firstError;
    return _isGood;
  }

 private:
  void fail(ZPKErrorPtr error) {
    if (!_isGood) return;
    _isGood = false;
    _firstError = std::move(error);
  }

  bool _isGood = true;
  ZPKErrorPtr _firstError;
};
