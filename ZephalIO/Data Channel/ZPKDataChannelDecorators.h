// The factories of the channels that wrap a channel.
//
// Any thread may call them. Each holds the channel below strongly, opens nothing and closes
// nothing. The contract of ZPKDataChannel holds for what they make; what differs is told here. A
// failure is null, domain "zephal-communication", code 3.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKDataTransformer.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// A channel that runs the read transformers, in their order, on what is read and the write
/// transformers on a copy of what is written. The lists are copied, the transformers shared; an
/// empty list changes nothing.
///
/// One read below per read: if the transformers swallow it all, the result is empty data at once,
/// with time left. Empty data from below goes through the transformers too, so that they can
/// release what they hold. A null write is false without an error; a write that the transformers
/// empty goes down as an empty write. reset reaches every transformer and then the channel below,
/// and reports the first failure.
///
/// Fails for a null channel and for a list with a null in it.
ZPK_EXPORT ZPKDataChannelPtr createChannelTransformer(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, ZPKErrorPtr* error = nullptr);

/// As createChannelTransformer, except that a read first lets the read transformers release what
/// they hold, and reads below only if that is nothing. A channel below that has failed is thus not
/// noticed before the transformers are empty.
ZPK_EXPORT ZPKDataChannelPtr createChannelTransformerWithPreCall(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, ZPKErrorPtr* error = nullptr);

/// The worker behind both, with `preread` for the second.
ZPK_EXPORT ZPKDataChannelPtr createChannelTransformer__internal(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, bool preread, ZPKErrorPtr* error = nullptr);

/// A channel that reads ahead: while it is open, a thread of its own reads the channel below, in
/// slices of 1/30 second, so that the device is drained whatever the caller does. A read takes all
/// that has come, as soon as there is anything, and waits for it against the system's wall clock.
/// What nobody reads is kept without bound. Writes pass. The thread starts with a good open, or at
/// once if `channel` is open, and holds the new channel until it ends: let go of an open channel
/// only after a close.
///
/// close may run on any thread, beside a read and, if the channel below allows that, beside a
/// write; a base channel does, see ZPKDataChannel.h. It waits for the thread, a slice at the most,
/// and then closes below; a read that waits gets null and no error. Bytes that were not read are
/// lost, as they are when a read below fails, be it a whole response that a hang-up follows at
/// once. That failure ends the thread: a read that waits gets its error, every later one code 2,
/// and close gives the error's domain and user information with code 2 and leaves the channel below
/// alone. An open starts afresh. Memory that runs out on the thread is such a failure too, code 5
/// with ENOMEM, after which the channel below is closed.
///
/// If the system has no thread to give, there is one log line, "Failed to start thread". open then
/// closes below again and fails with that, code 5; made over an open channel, the new one is closed
/// and leaves the other open, and its close fails with that, code 2.
///
/// reset and open fail with code 1 while it is open; a read fails with code 5 if the system cannot
/// wait. Fails for a null channel.
ZPK_EXPORT ZPKDataChannelPtr createActiveChannel(const ZPKDataChannelPtr& channel,
                                                 ZPKErrorPtr* error = nullptr);

/// As createActiveChannel, except that what comes is dropped: the thread is there for the channels
/// below, which see all traffic. Reads and writes fail with code 6, open or not.
ZPK_EXPORT ZPKDataChannelPtr createActiveNullChannel(const ZPKDataChannelPtr& channel,
                                                     ZPKErrorPtr* error = nullptr);

/// A channel whose read keeps reading the channel below, in slices of a tenth of the timeout and on
/// the caller's thread, until bytes come, the time is up, or the channel closes. Empty data comes
/// no earlier than the timeout and about one slice later at the most. A channel that closes between
/// two slices gives null, and null in the slot. Time is the system's wall clock, so a clock that is
/// set during a read moves its end. A negative timeout other than FOREVER goes down and is refused
/// there.
///
/// Fails for a null channel.
ZPK_EXPORT ZPKDataChannelPtr createPassiveChannel(const ZPKDataChannelPtr& channel,
                                                  ZPKErrorPtr* error = nullptr);

/// A channel that takes the echoes of what was written out of what is read. A line is a run of
/// bytes up to and including `delimiter`, which is copied. Each complete line that was written
/// waits for its echo; a line read that equals the oldest of these, byte for byte, is dropped, any
/// other passes. An echo that is read before its write has returned passes too.
///
/// One read below per read; the result is empty data if all was echo. While an echo is awaited,
/// bytes that do not end in the delimiter, a prompt for instance, are held back: with a device that
/// does not echo they stay so until reset. Neither open nor close forgets anything, reset forgets
/// both the held bytes and the awaited echoes, whatever the channel below says to it.
///
/// Fails for a null channel, then for a delimiter that is null or empty.
ZPK_EXPORT ZPKDataChannelPtr createEchoRemovalChannel(const ZPKDataChannelPtr& channel,
                                                      const ZPKDataPtr& delimiter,
                                                      ZPKErrorPtr* error = nullptr);

/// A channel that copies all that is read and written into the text file at `filePath`: a line
/// each, behind the local time, the direction and the process,
///
///     2024-05-01 12:00:00.250 <pre--write>[4711]: version
///     2024-05-01 12:00:00.310 <pre---read>[4711]: 2.33
///
/// with `identifier` ("pre-" here) in front of the direction. Bytes and results pass unchanged.
/// What is written, passwords included, is logged before it leaves, whether or not that succeeds;
/// empty data leaves no trace. Valid UTF-8 stands in the file as it came, escape sequences and the
/// line ends of Unicode too; other bytes show as in ZPKDataToString.
///
/// open opens the file, then the channel below. A file that is not there is made, with the
/// permissions 0666 less the process's umask; one that is there grows at its end and keeps its own.
/// If it cannot be made, open is false with a line in the log and no error; if it cannot be opened,
/// with the system's error (domain "POSIX"; ENXIO for a FIFO that nobody reads). The channel below
/// then stays closed. close closes the file, which then holds everything that was logged. A channel
/// that is dropped without it writes what is pending, too, but perhaps later. Nothing is logged
/// while the file is not open.
///
/// With `synchronousLogging` a read or write returns when its lines are in the file, otherwise they
/// are written in the background: at once after a pause, together with others while the traffic is
/// busy. A program that ends without close can thus lose what passed in its last moment. A thread
/// of the channel does that, which sleeps otherwise (8.5 KiB of resident memory); open starts it
/// and close ends it. If the system has no thread to give, the open goes on, and a read or write
/// returns when its lines are in the file. Several channels and processes can share one file, which
/// each locks (flock(2)) for its lines. Whoever may read the file can lock it too: a write waits
/// for the lock for a second at most, then goes on without, and the first time says so in the log.
/// What the file does not take, on a full disk for instance, is lost without a word, and the
/// traffic goes on. The file stays the one that was opened when somebody moves or removes it.
///
/// Fails for a null channel, then for a null path, then for a null identifier.
ZPK_EXPORT ZPKDataChannelPtr createLoggingChannel(const ZPKDataChannelPtr& channel,
                                                  std::optional<std::string_view> filePath,
                                                  std::optional<std::string_view> identifier,
                                                  bool synchronousLogging,
                                                  ZPKErrorPtr* error = nullptr);

/// A channel that writes one byte at a time, with a pause of `microSecondDelay` microseconds before
/// each, on the caller's thread. Empty and null data succeed without reaching the channel below.
/// When a byte fails, those before it have gone out. Reads pass.
///
/// Fails for a null channel.
ZPK_EXPORT ZPKDataChannelPtr createInterCharacterDelayChannel(const ZPKDataChannelPtr& channel,
                                                              uint32_t microSecondDelay,
                                                              ZPKErrorPtr* error = nullptr);

/// A channel that hands up one unit of `transformer` a read, a unit that is already held before
/// anything is read below, and otherwise one read below, which may leave the result empty. Writes
/// pass. The transformer is shared: its terminator can be changed while the channel is in use.
///
/// Fails for a null channel, then for a null transformer.
ZPK_EXPORT ZPKDataChannelPtr createAggregatingTransformerChannel(
    const ZPKDataChannelPtr& channel, const ZPKMutableDataAggregatorTransformerPtr& transformer,
    ZPKErrorPtr* error = nullptr);
