#pragma once

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKReportFailure.h"

/// One call of a stack on its chain: rejects what the chain's state does not allow, and reports it
/// in the name of the stack's function. A stack creates one within that function, with its lock
/// held. Everything except the report is inline, since each command and each read goes through it.
class ZPIStackCall final {
 public:
  /// `chain` is the top of the chain, and must live as long; null if none was created. Failures are
  /// stored in `error`, unless it is null, and logged, with `domain` and `site`.
  ZPIStackCall(const char* domain, ZPKDataChannel* chain, ZPKErrorPtr* error,
               const ZPIFailureSite& site)
      : _domain(domain), _chain(chain), _error(error), _site(site) {}
  ZPIStackCall(const ZPIStackCall&) = delete;
  ZPIStackCall& operator=(const ZPIStackCall&) = delete;

  ZPKDataChannel* chain() const { return _chain; }

  /// If there is a chain, reports code 302 with `message` and returns true.
  bool refuseOnceCreated(const char* message) const {
    return _chain != nullptr && refuse(302, message);
  }

  /// If the chain is open, reports code 303 and returns true.
  bool refuseWhileOpen() const { return isOpened() && refuse(303, kAlreadyOpen); }

  /// If the chain is not open, or there is none, reports code 304 and returns true.
  bool refuseUnlessOpen() const { return !isOpened() && refuse(304, kNotOpen); }

  /// Opens the chain. Fails with code 301 if there is none, with code 303 if it is open, and with
  /// the error of the chain.
  bool open(double timeout) const {
    if (_chain == nullptr) return !refuse(301, kNotCreated);
    return !refuseWhileOpen() && _chain->openWithTimeout(timeout, _error);
  }

 private:
  static constexpr const char* kNotCreated =
      "UART port stack not created, please call \"createStackWithURL\" before calling open";
  static constexpr const char* kAlreadyOpen =
      "UART port cannot already be open, please call \"close\" before calling open again";
  static constexpr const char* kNotOpen =
      "UART port not open, please call \"open\" before calling functions that talk over UART";

  bool isOpened() const { return _chain != nullptr && _chain->isOpened(); }

  // Reports, and returns true. The members go by value, so that a call that is not refused need not
  // be in memory.
  bool refuse(int code, const char* message) const {
    return report(_domain, code, _site, message, _error);
  }
  static bool report(const char* domain, int code, const ZPIFailureSite& site, const char* message,
                     ZPKErrorPtr* error);

  const char* const _domain;
  ZPKDataChannel* const _chain;
  ZPKErrorPtr* const _error;
  const ZPIFailureSite _site;
};
