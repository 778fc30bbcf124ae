// The lowest layer: the only code that reads from and writes to the file descriptor of a channel.
#pragma once

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <exception>
#include <new>
#include <utility>

#include "Utility/ZPIHeldDescriptor.h"
#include "Utility/ZPKConstants.h"
#include "Utility/ZPKReportFailure.h"
#include "Utility/ZPKTypes.h"

/// What a system call returned, and the errno straight after it.
using ZPICallResult = std::pair<int64_t, int>;

/// Calls select(2) on a read set, and again on EAGAIN and EINTR. A null timeout waits without
/// limit. A restart passes the same timeval: Linux counts it down, so there the wait continues for
/// the time that is left. `nfds` is limited to FD_SETSIZE, the size of the set.
ZPICallResult select_with_retry(int nfds, fd_set* readSet, timeval* timeout);

/// Calls read(2), and again on EAGAIN. EINTR does not restart it: the count is then 0.
ZPICallResult read_with_retry(int descriptor, void* buffer, size_t count);

/// Waits up to `timeout` seconds for bytes (select(2)) and reads one time (read(2)): at most as
/// many bytes as were waiting at entry, or 65536 if there were none.
///
/// - bytes arrived: non-empty data, which may be a ZPKMutableData;
/// - the timeout expired, or no bytes wait under ZEPHAL_COMMUNICATION_TIME_NOW: empty data;
/// - select or read failed, read was interrupted, or end of file (errno 0): null, domain
///   "zephal-communication", code 5. The descriptor stays open.
///
/// Only the last case touches the slot. select cannot wait for a descriptor of FD_SETSIZE or above:
/// the timeout passes and the result is empty data. Without a time limit this takes a tenth of a
/// second, so that a caller that loops neither spins nor blocks for ever.
ZPKDataPtr zephal_communication_read(int descriptor, double timeout, ZPKErrorPtr* error);

/// The same on a descriptor that may be given up in the meantime. If it has been by the end of the
/// wait, it is not read, and the call fails with EBADF.
///
/// If `held` is not null and not empty, the bytes may be added to its end instead, and the result
/// is then empty data. `held` is not touched during the wait.
ZPKDataPtr zephal_communication_read(const ZPIHeldDescriptor::Use& use, ZPKMutableData* held,
                                     double timeout, ZPKErrorPtr* error);

/// Writes all bytes (write(2), send(2)), in as many calls as the system needs. Empty and null data
/// succeed without a system call. A call that writes nothing, EINTR and EAGAIN included, is a
/// failure: false, domain "zephal-communication", code 5; the bytes that were written before it are
/// sent. If the peer has gone away, the write fails with EPIPE and raises no signal, on a socket
/// and on a pipe.
bool zephal_communication_write(int descriptor, const ZPKDataPtr& data, ZPKErrorPtr* error);

/// The same on a descriptor that may be given up in the meantime: the rest is then not sent, and
/// the call fails with EBADF.
bool zephal_communication_write(const ZPIHeldDescriptor::Use& use, const ZPKDataPtr& data,
                                ZPKErrorPtr* error);

/// Like zephal_communication_write, for a descriptor that is known not to be a socket or a pipe.
bool zephal_communication_write_no_socket(int descriptor, const ZPKDataPtr& data,
                                          ZPKErrorPtr* error);
bool zephal_communication_write_no_socket(const ZPIHeldDescriptor::Use& use, const ZPKDataPtr& data,
                                          ZPKErrorPtr* error);

/// The state machine of a channel over one descriptor, closed (-1) or open.
///
/// `Policy` holds what an endpoint needs for opening and provides
///   bool acquire(int* descriptor, ZPKErrorPtr* error): opens; if it fails, it may leave a
///     descriptor, which is then closed here;
///   bool close(int descriptor, ZPKErrorPtr* error): closes;
///   static constexpr bool kIsSocket: whether its descriptors can be sockets.
///
/// One thread may read while another writes, and a third may close at the same time; open must not
/// run at the same time as any of them. A failed read closes the descriptor. A failed write does
/// not, and neither does the destructor.
///
/// A close during other threads' calls on the descriptor gives it up: the state becomes closed
/// immediately, a socket is shut down so that those calls return, and the last of them calls the
/// policy's close. The number stays in use until then, so those calls cannot reach a different
/// file. There is no lock; see ZPIHeldDescriptor.
template <class Policy>
class ZPIFileDescriptorCommunication {
 public:
  /// Starts closed for a `descriptor` of -1; otherwise starts open and takes over `descriptor`.
  ZPIFileDescriptorCommunication(int descriptor, Policy initialPolicy)
      : fd(descriptor),
        policy(std::move(initialPolicy)),
        time_now(ZEPHAL_COMMUNICATION_TIME_NOW),
        time_forever(ZEPHAL_COMMUNICATION_TIME_FOREVER) {}

  bool isOpen() const { return fd.isHeld(); }

  /// Opens. The timeout is ignored: opening takes as long as it takes. Fails with domain
  /// "zephal-communication", code 1 if it is open, or with the error of the policy.
  bool openWithTimeout(double /*timeout*/, ZPKErrorPtr* error) {
    if (isOpen()) {
      ZPKReportFailure(error, kZPICommunicationDomain, 1, {"openWithTimeout"},
                       "Device Already Opened");
      return false;
    }
    int32_t descriptor = -1;
    try {
      const bool isAcquired = policy.acquire(&descriptor, error);
      // No slot: keep the error of the step that failed.
      if (!isAcquired && descriptor >= 0) policy.close(std::exchange(descriptor, -1), nullptr);
      fd.hold(descriptor);
      return isAcquired;
    } catch (const std::bad_alloc&) {
      if (descriptor >= 0) policy.close(descriptor, nullptr);
      throw;
    }
  }

  /// Closes. The state is closed afterwards even if the system's close fails. If a thread that is
  /// still in a call is left to do the system's close, the result is true, and a failure of that
  /// close is only logged. Fails with code 2 if it is closed already.
  bool close(ZPKErrorPtr* error) {
    ScopedUse scope(this);
    return scope.giveUp(error);
  }

  /// Reads like zephal_communication_read, and closes the descriptor if that fails. Fails with code
  /// 2 if it is closed, and with code 3 for a timeout that is not a number or is negative and not
  /// FOREVER.
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) {
    return readOnto(nullptr, timeout, error);
  }

  /// The same, but may add the bytes to the end of `held`: see zephal_communication_read.
  ZPKDataPtr readOnto(ZPKMutableData* held, double timeout, ZPKErrorPtr* error) {
    ScopedUse scope(this);
    if (!scope.use) {
      ZPKReportFailure(error, kZPICommunicationDomain, 2, {"readWithTimeout"},
                       "Cannot communicate with closed devices");
      return nullptr;
    }
    // Written so that not-a-number is rejected too.
    if (!(timeout >= 0.0) && timeout != time_forever && timeout != time_now) {
      ZPKReportFailure(error, kZPICommunicationDomain, 3, {"readWithTimeout"},
                       "time out has an invalid value");
      return nullptr;
    }
    ZPKDataPtr data = zephal_communication_read(scope.use, held, timeout, error);
    if (data != nullptr) return data;
    scope.giveUp(error);
    if (timeout == time_forever) {
      ZPKReportFailure(error, kZPICommunicationDomain, 5, {"readWithTimeout"},
                       "Client disconnected");
    }
    return nullptr;
  }

  /// Writes like zephal_communication_write. A failure leaves the descriptor open. Fails with code
  /// 2 if it is closed.
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
    const ScopedUse scope(this);
    if (!scope.use) {
      ZPKReportFailure(error, kZPICommunicationDomain, 2, {"write"},
                       "Cannot communicate with closed devices");
      return false;
    }
    if constexpr (Policy::kIsSocket) {
      return zephal_communication_write(scope.use, data, error);
    } else {
      return zephal_communication_write_no_socket(scope.use, data, error);
    }
  }

 private:
  // A use of the descriptor that ends with its scope.
  struct ScopedUse {
    explicit ScopedUse(ZPIFileDescriptorCommunication* user) : owner(user), use(user->fd.use()) {}
    ScopedUse(const ScopedUse&) = delete;
    ScopedUse& operator=(const ScopedUse&) = delete;
    ~ScopedUse() {
      if (use && use.leave()) closeAsLast();
    }

    // The descriptor is closed even if there is no memory to report that this failed.
    void closeAsLast() {
      try {
        owner->policy.close(use.descriptor(), nullptr);
      } catch (const std::exception&) {
        return;
      }
    }

    // Ends the use and closes; the result is that of close().
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
