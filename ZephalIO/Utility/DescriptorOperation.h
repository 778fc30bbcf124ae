// The lowest layer: the only code that reads from and writes to the descriptor of a channel.
#pragma once

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <utility>

#include "Utility/ZPIHeldDescriptor.h"
#include "Utility/ZPKConstants.h"
#include "Utility/ZPKReportFailure.h"
#include "Utility/ZPKTypes.h"

/// What a system call returned, and the errno straight after it.
using ZPICallResult = std::pair<int64_t, int>;

/// select(2) on a read set, again on EAGAIN and EINTR, with the same timeval. A null timeout waits
/// without limit. A count beyond FD_SETSIZE is cut there, since the set holds no more; so on Linux,
/// whose select counts the timeval down, a restarted wait lasts what remains.
ZPICallResult select_with_retry(int nfds, fd_set* readSet, timeval* timeout);

/// read(2), again on EAGAIN. EINTR is not restarted: the count is then 0.
ZPICallResult read_with_retry(int descriptor, void* buffer, size_t count);

/// One read of at most what was waiting at entry, or of 65536 bytes if nothing was, waiting for at
/// most `timeout` seconds.
///
/// - bytes arrived: non-empty data, which may be a ZPKMutableData;
/// - the time ran out, or nothing waits under ZEPHAL_COMMUNICATION_TIME_NOW: empty data;
/// - select or read failed, read was interrupted, or end of file (errno 0): null, domain
///   "zephal-communication", code 5. The descriptor stays open.
///
/// The slot is touched in the last case only. A descriptor of FD_SETSIZE or above cannot be waited
/// for: the time passes and the result is empty data. With no limit to the time, that is a tenth of
/// a second, so that a caller who asks again neither spins nor goes deaf.
ZPKDataPtr zephal_communication_read(int descriptor, double timeout, ZPKErrorPtr* error);

/// The same on a descriptor that may be given up meanwhile: what is given up when the wait is over
/// is not read any more, which fails with EBADF.
ZPKDataPtr zephal_communication_read(const ZPIHeldDescriptor::Use& use, double timeout,
                                     ZPKErrorPtr* error);

/// Writes all bytes, in as many calls as the system asks for. Empty and null data succeed with no
/// system call. A call that writes nothing, EINTR and EAGAIN included, is a failure: false, domain
/// "zephal-communication", code 5, and what went out before stays out. A peer that has gone gives
/// EPIPE and no signal, whether the descriptor is a socket or a pipe.
bool zephal_communication_write(int descriptor, const ZPKDataPtr& data, ZPKErrorPtr* error);

/// The same on a descriptor that may be given up meanwhile: what then remains stays unsent, which
/// fails with EBADF.
bool zephal_communication_write(const ZPIHeldDescriptor::Use& use, const ZPKDataPtr& data,
                                ZPKErrorPtr* error);

/// As zephal_communication_write, for a descriptor that is known to be neither a socket nor a pipe.
bool zephal_communication_write_no_socket(int descriptor, const ZPKDataPtr& data,
                                          ZPKErrorPtr* error);
bool zephal_communication_write_no_socket(const ZPIHeldDescriptor::Use& use, const ZPKDataPtr& data,
                                          ZPKErrorPtr* error);

/// The state machine of a channel over one descriptor, closed (-1) or open.
///
/// `Policy` holds what an endpoint needs for opening and provides
///   bool acquire(int* descriptor, ZPKErrorPtr* error): opens; may leave a descriptor behind when
///     it fails, which is then closed here;
///   bool close(int descriptor, ZPKErrorPtr* error): closes;
///   static constexpr bool kIsSocket: whether its descriptors can be sockets.
///
/// One thread may read while another writes, and a third may close beside both; open must not run
/// beside any of them. A failed read closes the descriptor, a failed write does not, and neither
/// does the destructor.
///
/// Whoever closes while others are in a call on the descriptor gives it up: the state is closed at
/// once, a socket is shut down, so that they come out, and the last of them calls the policy's
/// close. Until then the number stays taken, so nothing that they still do can reach another file.
/// There is no lock; see ZPIHeldDescriptor.
template <class Policy>
class ZPIFileDescriptorCommunication {
 public:
  /// Begins with `descriptor`: -1 for closed, one of 0 or above for a descriptor that is taken
  /// over.
  ZPIFileDescriptorCommunication(int descriptor, Policy initialPolicy)
      : fd(descriptor),
        policy(std::move(initialPolicy)),
        time_now(ZEPHAL_COMMUNICATION_TIME_NOW),
        time_forever(ZEPHAL_COMMUNICATION_TIME_FOREVER) {}

  bool isOpen() const { return fd.isHeld(); }

  /// Opens. The timeout is ignored: an endpoint opens in its own time.
  bool openWithTimeout(double /*timeout*/, ZPKErrorPtr* error) {
    if (isOpen()) {
      ZPKReportFailure(error, kZPICommunicationDomain, 1, {"openWithTimeout"},
                       "Device Already Opened");
      return false;
    }
    int32_t descriptor = -1;
    const bool isAcquired = policy.acquire(&descriptor, error);
    if (!isAcquired && descriptor >= 0) {
      policy.close(descriptor, nullptr);  // no slot: the error of the failed step stands
      descriptor = -1;
    }
    fd.hold(descriptor);
    return isAcquired;
  }

  /// Closes. The state is closed afterwards even if the system's close fails. True, whatever comes
  /// of the system's close, if that is left to somebody who is in a call; a failure is then logged.
  bool close(ZPKErrorPtr* error) {
    Turn turn(this);
    return turn.giveUp(error);
  }

  /// Reads as zephal_communication_read does, and closes the descriptor when that fails.
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) {
    Turn turn(this);
    if (!turn.use) {
      ZPKReportFailure(error, kZPICommunicationDomain, 2, {"readWithTimeout"},
                       "Cannot communicate with closed devices");
      return nullptr;
    }
    // Written so that not-a-number is refused too.
    if (!(timeout >= 0.0) && timeout != time_forever && timeout != time_now) {
      ZPKReportFailure(error, kZPICommunicationDomain, 3, {"readWithTimeout"},
                       "time out has an invalid value");
      return nullptr;
    }
    ZPKDataPtr data = zephal_communication_read(turn.use, timeout, error);
    if (data != nullptr) return data;
    turn.giveUp(error);
    if (timeout == time_forever) {
      ZPKReportFailure(error, kZPICommunicationDomain, 5, {"readWithTimeout"},
                       "Client disconnected");
    }
    return nullptr;
  }

  /// Writes as zephal_communication_write does. A failure leaves the descriptor open.
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
    const Turn turn(this);
    if (!turn.use) {
      ZPKReportFailure(error, kZPICommunicationDomain, 2, {"write"},
                       "Cannot communicate with closed devices");
      return false;
    }
    if constexpr (Policy::kIsSocket) {
      return zephal_communication_write(turn.use, data, error);
    } else {
      return zephal_communication_write_no_socket(turn.use, data, error);
    }
  }

 private:
  // A use of the descriptor for the length of a scope, whichever way that is left.
  struct Turn {
    explicit Turn(ZPIFileDescriptorCommunication* user) : owner(user), use(user->fd.use()) {}
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
      if (use && use.leave()) owner->policy.close(use.descriptor(), nullptr);
    }

    // Ends the use, and the state of being open; the result is that of a close.
    bool giveUp(ZPKErrorPtr* error) {
      if (!use || !use.giveUp()) {
        ZPKReportFailure(error, kZPICommunicationDomain, 2, {"close"}, "Device Already Closed");
        return false;
      }
      if (Policy::kIsSocket && use.isShared()) ::shutdown(use.descriptor(), SHUT_RDWR);
      const int32_t descriptor = use.descriptor();
      const bool isLast = std::exchange(use, {}).leave();
      return !isLast || owner->policy.close(descriptor, error);
    }

    ZPIFileDescriptorCommunication* const owner;
    ZPIHeldDescriptor::Use use;
  };

  ZPIHeldDescriptor fd;
  Policy policy;
  const double time_now;
  const double time_forever;
};
