#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "Utility/ZPKConstants.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKError.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKOptions.h"
#include "Utility/ZPKTypes.h"
#include "Utility/ZPKURL.h"

/// What moves bytes: a transport over a descriptor, or a decorator that wraps a channel and adds
/// one behaviour. A caller's own class that keeps this contract can stand at the bottom of a stack.
///
/// A channel is closed when it is made, unless it adopts a socket that is open, and can be opened,
/// closed and reset any number of times. It falls from open to closed by itself when a transport's
/// read fails. A decorator takes its state from the channel below, which it holds strongly; a
/// channel never knows what stands above it. Destroying a channel does not close it.
///
/// Results of type bool are true for success. The error slot is always optional; it is touched on
/// failure only, and a failure from below is passed up as it is.
///
/// Threads: readWithTimeout and write may run at the same time on two threads, and isOpened during
/// both. open, close and reset must not run beside them, except where a channel says so. A channel
/// is never read by two threads at once.
///
///     ZPKErrorPtr error;
///     auto channel = createBaseChannelWithTransport("tcp://localhost:4000", &error);
///     if (channel == nullptr || !channel->openWithTimeout(5.0, &error)) return report(error);
///     channel->write(ZPKData::dataWithString("version\n"), &error);
///     ZPKDataPtr bytes = channel->readWithTimeout(1.0, &error);
class ZPK_EXPORT ZPKDataChannel {
 public:
  virtual ~ZPKDataChannel();

  /// Opens this channel and everything below it. The timeout, in seconds, is handed down and
  /// ignored at the bottom: a transport connects in its own time. Fails with domain
  /// "zephal-communication", code 1 if it is open. A false result need not come with an error: a
  /// socket that cannot connect gives none. errno(3) then says why straight after the call, through
  /// all decorators: what connect(2) left there, or EHOSTUNREACH for a host that is not known.
  virtual bool openWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) = 0;

  /// Closes. Fails with domain "zephal-communication", code 2 if it is closed. Bytes that a
  /// transformer or a queue holds stay; reset drops them.
  virtual bool close(ZPKErrorPtr* error = nullptr) = 0;

  /// Returns a closed channel and its transformers to their first state; no input or output. Fails
  /// with domain "zephal-communication", code 1 while open. Runs to its end even after a failure
  /// and reports the first.
  virtual bool reset(ZPKErrorPtr* error = nullptr) = 0;

  /// Whether the channel is open; no side effects.
  virtual bool isOpened() const = 0;

  /// Reads. `timeout` is in seconds: ZEPHAL_COMMUNICATION_TIME_NOW, any positive number, or
  /// ZEPHAL_COMMUNICATION_TIME_FOREVER. There are four outcomes:
  ///
  /// - non-empty data: bytes; the slot is untouched;
  /// - empty data: the time ran out, or what came is held back by a transformer; this is no failure
  ///   and the slot is untouched;
  /// - null with an error: failure, and a transport has closed itself. Domain
  ///   "zephal-communication", code 2 for a closed channel, 3 for a timeout that is negative and
  ///   not FOREVER, 5 for a failed system call or a peer that has gone;
  /// - null without an error: the channel was closed, cleanly, under the reader.
  ///
  /// The result is the caller's own and may be a ZPKMutableData.
  virtual ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) = 0;

  /// Writes all of `data`, waiting for as long as that takes: there is no time limit, and a peer
  /// that does not read holds the call up. Empty data is a success with no system call; null data
  /// is refused without an error by a channel with transformers and a success at a transport. Fails
  /// with domain "zephal-communication", code 2 for a closed channel and 5 for a failed system
  /// call, after which the channel is still open and nobody knows how much went out.
  virtual bool write(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr) = 0;
};

using ZPKDataChannelPtr = std::shared_ptr<ZPKDataChannel>;

// The factories of the base channels. Any thread may call them. None opens what it makes. A failure
// is null, domain "zephal-communication", code 3.
//
// close of a base channel may run on any thread, beside a read and a write, and so may the failed
// read that closes the channel. The channel is closed at once, and no byte leaves or comes through
// its descriptor any more: the number of the descriptor stays taken until the last call on it has
// come back. On a socket those calls come back at once, since it is shut down (shutdown(2), which
// other descriptors of the same socket see too). On a serial port a read comes back with the next
// byte or when its time is up, a write when the device takes what the system holds, or goes. A
// write then fails with code 5 and EBADF, or EPIPE if nothing of it was out yet; a read with code 2
// "Device Already Closed", under FOREVER with code 5 "Client disconnected". If close left the
// closing of the descriptor to another call, its result is true, and a failure is only logged.

/// A serial port (termios(3)): the path of `url` names the device, `options` its speed, mode and
/// exclusive hold (see ZPKConstants.h). Options are copied; null, or a key left out, means the
/// defaults. The URL's query is not read. Fails for a null URL and for a scheme other than "uart".
/// A bad speed or mode shows at open; a mode shorter than three characters throws
/// std::out_of_range there and leaves the device open, and held, until the process ends.
///
/// An open sets speed, mode and raw processing and leaves other settings as they are, such as flow
/// control and fixed parity (stty(1): crtscts, cmspar). On Linux the hold marks the terminal and
/// ends when the last program closes it, which may be later than close: an ordinary user cannot
/// open the device until then. A device that has vanished fails writes, but only a read notices it
/// and closes the channel.
ZPK_EXPORT ZPKDataChannelPtr createUARTChannel(const ZPKURLPtr& url, const ZPKOptionsPtr& options,
                                               ZPKErrorPtr* error = nullptr);

/// A connection to a "tcp" or "unix" URL (connect(2), tcp(7), unix(7)). Fails for a null URL alone:
/// any other that cannot be connected to gives a log line here and a failed open later.
///
/// A host that is a name is resolved at open with gethostbyname(3): channels to names must not be
/// opened on two threads at once, channels to dotted addresses may. A program that is started by
/// exec(2) does not inherit the socket. A child that goes on after fork(2) alone does, and the peer
/// sees no end before that has closed it too.
ZPK_EXPORT ZPKDataChannelPtr createActiveTCPChannel(const ZPKURLPtr& url,
                                                    ZPKErrorPtr* error = nullptr);

/// A channel over a connected socket, which it takes over: it is open at once, and close closes the
/// socket for good. No option of it is set. A program that is started by exec(2) does not inherit
/// it any more (FD_CLOEXEC, see fcntl(2)), unless it is standard input, output or error, which stay
/// as they are. It is to be blocking: on one that is not, a write that does not fit at once fails.
/// Fails for -1; any other negative value gives a channel that is closed for good.
ZPK_EXPORT ZPKDataChannelPtr createActiveTCPChannelWithSocket(int32_t socket,
                                                              ZPKErrorPtr* error = nullptr);

/// The channel that a URL names: "uart:///dev/ttyUSB0?baud=921600&mode=8N1", "tcp://host:port" or
/// "unix:///path". Schemes and the names of query items are compared exactly, other items are
/// ignored, and the last of a repeated item counts. A "baud" that is no number is 0; a "mode"
/// without a value means the default. Fails for any other scheme, for a null string, and for one
/// that is no URL (RFC 3986).
ZPK_EXPORT ZPKDataChannelPtr createBaseChannelWithTransport(std::optional<std::string_view> url,
                                                            ZPKErrorPtr* error = nullptr);
