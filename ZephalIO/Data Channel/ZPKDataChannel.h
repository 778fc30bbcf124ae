/// @file
/// The contract of everything that moves bytes, and the factories of the transports.
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

/// Moves bytes: either a transport over a file descriptor, or a decorator that wraps a channel and
/// adds one behaviour. A caller's own class that keeps this contract can be at the bottom of a
/// stack.
///
/// A channel is closed when it is created, unless it adopts an open socket. It can be opened,
/// closed and reset any number of times. An open transport becomes closed by itself when a read
/// fails. A decorator takes its state from the channel below, which it holds strongly; a channel
/// never knows what is above it. Destroying a channel does not close it.
///
/// Results of type bool are true for success. The error slot is always optional; only a failure
/// touches it, and a failure from below is passed up unchanged.
///
/// Threads: readWithTimeout and write may run at the same time on two threads, and isOpened during
/// both. open, close and reset must not run at the same time as these, unless a channel says so.
/// Two threads must never read a channel at the same time.
///
///     ZPKErrorPtr error;
///     auto channel = createBaseChannelWithTransport("tcp://localhost:4000", &error);
///     if (channel == nullptr || !channel->openWithTimeout(5.0, &error)) return report(error);
///     channel->write(ZPKData::dataWithString("version\n"), &error);
///     ZPKDataPtr bytes = channel->readWithTimeout(1.0, &error);
class ZPK_EXPORT ZPKDataChannel {
 public:
  virtual ~ZPKDataChannel();

  /// Opens this channel and everything below it. The timeout, in seconds, is passed down and
  /// ignored at the bottom: connecting takes as long as the system needs. Fails with domain
  /// "zephal-communication", code 1 if it is open. A failure need not have an error: a socket that
  /// cannot connect reports none. Immediately after the call, errno(3) then holds the reason, also
  /// through decorators: the errno of connect(2), or EHOSTUNREACH for an unknown host.
  virtual bool openWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) = 0;

  /// Closes. Fails with domain "zephal-communication", code 2 if it is closed. Bytes that a
  /// transformer or a queue has buffered stay; reset drops them.
  virtual bool close(ZPKErrorPtr* error = nullptr) = 0;

  /// Returns a closed channel and its transformers to their initial state, without input or output.
  /// Fails with domain "zephal-communication", code 1 while open. Continues to the end even after a
  /// failure, and reports the first one.
  virtual bool reset(ZPKErrorPtr* error = nullptr) = 0;

  /// Whether the channel is open. Has no side effects.
  virtual bool isOpened() const = 0;

  /// Reads. `timeout` is in seconds: ZEPHAL_COMMUNICATION_TIME_NOW, any positive number, or
  /// ZEPHAL_COMMUNICATION_TIME_FOREVER. There are four outcomes:
  ///
  /// - non-empty data: bytes; the slot is untouched;
  /// - empty data: the timeout expired, or a transformer holds back the bytes that arrived; this is
  ///   not a failure, and the slot is untouched;
  /// - null with an error: a failure, after which a transport has closed itself. Domain
  ///   "zephal-communication", code 2 for a closed channel, 3 for a timeout that is negative and
  ///   not FOREVER, 5 for a failed system call or a peer that has gone away;
  /// - null without an error: the channel was closed, cleanly, during the read.
  ///
  /// The caller owns the result, which may be a ZPKMutableData.
  virtual ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) = 0;

  /// Writes all of `data`. There is no time limit: the call waits until the peer has read enough.
  /// Empty data succeeds without a system call. Null data succeeds at a transport; a channel with
  /// transformers rejects it without an error. Fails with domain "zephal-communication", code 2 for
  /// a closed channel and code 5 for a failed system call; then the channel stays open, and it is
  /// unknown how many bytes were sent.
  virtual bool write(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr) = 0;
};

/// A shared channel; null where a channel could not be created.
using ZPKDataChannelPtr = std::shared_ptr<ZPKDataChannel>;

/// @name The factories of the base channels
/// Any thread may call them. They do not open the channels that they create. A failure is null,
/// domain "zephal-communication", code 3.
///
/// close of a base channel may run on any thread, at the same time as a read and a write, and so
/// may a failed read, which closes the channel. The channel becomes closed immediately, and no more
/// bytes pass through its descriptor. The number of the descriptor stays in use until the last call
/// on it has returned. On a socket those calls return immediately, since it is shut down
/// (shutdown(2), which also affects other descriptors of the same socket). On a serial port a read
/// returns with the next byte or when its timeout expires, and a write returns when the device
/// accepts the bytes that the system buffers, or disconnects. The write then fails with code 5 and
/// EBADF, or EPIPE if none of it was sent yet. The read fails with code 2 "Device Already Closed",
/// under FOREVER with code 5 "Client disconnected". If close leaves it to another call to close the
/// descriptor, its result is true, and a failure is only logged.
/// @{

/// A serial port (termios(3)): the path of `url` names the device, and `options` its baud rate,
/// mode and exclusive hold (see ZPKConstants.h). Options are copied; null, or a missing key, means
/// the defaults. The URL's query is not read. Fails for a null URL and for a scheme other than
/// "uart". A bad baud rate or mode shows at open; a mode shorter than three characters throws
/// std::out_of_range there and leaves the device open, and held, until the process ends.
///
/// open sets the baud rate, the mode and raw processing, and leaves other settings unchanged, such
/// as flow control and fixed parity (stty(1): crtscts, cmspar). On Linux the hold marks the
/// terminal and ends when the last program closes it, which may be later than close; until then an
/// ordinary user cannot open the device. If the device has vanished, writes fail, but only a read
/// detects that and closes the channel.
ZPK_EXPORT ZPKDataChannelPtr createUARTChannel(const ZPKURLPtr& url, const ZPKOptionsPtr& options,
                                               ZPKErrorPtr* error = nullptr);

/// A connection to a "tcp" or "unix" URL (connect(2), tcp(7), unix(7)). Fails only for a null URL.
/// Any other URL that cannot be connected to writes a log line here and fails at open.
///
/// open resolves a host name with gethostbyname(3), so do not open channels to names on two threads
/// at the same time; channels to dotted addresses may be. Programs that are started by exec(2) do
/// not inherit the socket. A child after fork(2) without exec does, and the peer sees no end of the
/// connection until the child has closed the socket too.
ZPK_EXPORT ZPKDataChannelPtr createActiveTCPChannel(const ZPKURLPtr& url,
                                                    ZPKErrorPtr* error = nullptr);

/// A channel over a connected socket, which it takes over: the channel is open from the start, and
/// close closes the socket for good. No socket option is set. Programs that are started by exec(2)
/// no longer inherit the socket (FD_CLOEXEC, see fcntl(2)), unless it is standard input, output or
/// error, which stay unchanged. The socket should be blocking: otherwise a write that does not fit
/// immediately fails. Fails for -1; for any other negative value the channel is closed for good.
ZPK_EXPORT ZPKDataChannelPtr createActiveTCPChannelWithSocket(int32_t socket,
                                                              ZPKErrorPtr* error = nullptr);

/// The channel that a URL names: "uart:///dev/ttyUSB0?baud=921600&mode=8N1", "tcp://host:port" or
/// "unix:///path". Schemes and the names of query items are compared exactly. Other items are
/// ignored; if an item is repeated, the last one counts. A "baud" that is not a number is 0; a
/// "mode" without a value means the default. Fails for any other scheme, for a null string, and for
/// a string that is not a URL (RFC 3986).
ZPK_EXPORT ZPKDataChannelPtr createBaseChannelWithTransport(std::optional<std::string_view> url,
                                                            ZPKErrorPtr* error = nullptr);

/// @}
