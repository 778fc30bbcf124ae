#pragma once

#include <utility>

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPKReportFailure.h"

/// One call of a stack, on its chain: refuses what the chain's state does not allow, and reports it
/// in the name of the stack's function. A stack makes one within the function, with its lock held.
/// Everything is inline but the report, since each command and each read goes through here.
class ZPIStackCall final {
 public:
  /// `chain` is the chain's top, null if none was created. Failures go to `error`, if it is not
  /// null, and to the log, in `domain` and at `site`.
  ZPIStackCall(const char* domain, ZPKDataChannelPtr chain, ZPKErrorPtr* error,
               const ZPIFailureSite& site)
      : _domain(domain), _chain(std::move(chain)), _error(error), _site(site) {}
  ZPIStackCall(const ZPIStackCall&) = delete;
  ZPIStackCall& operator=(const ZPIStackCall&) = delete;

  const ZPKDataChannelPtr& chain() const { return _chain; }

  /// True, with code 302 and `message` reported, if there is a chain.
  bool refuseOnceCreated(const char* message) const {
    return _chain != nullptr && refuse(302, message);
  }

  /// True, with code 303 reported, if the chain is open.
  bool refuseWhileOpen() const { return isOpened() && refuse(303, kAlreadyOpen); }

  /// True, with code 304 reported, if the chain is not open, also if there is none.
  bool refuseUnlessOpen() const { return !isOpened() && refuse(304, kNotOpen); }

  /// Opens the chain. Fails with code 301 if there is none, with 303 if it is open, and with what
  /// the chain reports.
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

  bool refuse(int code, const char* message) const;  // reports, and is true

  const char* const _domain;
  const ZPKDataChannelPtr _chain;
  ZPKErrorPtr* const _error;
  const ZPIFailureSite _site;
};
