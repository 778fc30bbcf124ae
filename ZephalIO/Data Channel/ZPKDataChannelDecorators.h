/// @file
/// The factories of the channels that wrap a channel.
///
/// Any thread may call them. They open and close nothing. The new channel holds the channel below
/// strongly and keeps the contract of ZPKDataChannel, except for the differences described here. A
/// failure is null, domain "zephal-communication", code 3.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKDataTransformer.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"

/// A channel that runs the read transformers, in order, on the bytes that are read, and the write
/// transformers on a copy of the bytes that are written. The lists are copied, the transformers
/// shared; an empty list changes nothing.
///
/// Each read reads below one time: if the transformers hold back all the bytes, the result is empty
/// data immediately, before the timeout. Empty data from below passes through the transformers too,
/// so that they can output buffered bytes. A null write is false without an error; a write that the
/// transformers make empty is passed down as an empty write. reset resets every transformer and
/// then the channel below, and reports the first failure.
///
/// Fails for a null channel and for a list that contains a null.
ZPK_EXPORT ZPKDataChannelPtr createChannelTransformer(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, ZPKErrorPtr* error = nullptr);

/// Like createChannelTransformer, except that a read first lets the read transformers output their
/// buffered bytes, and reads below only if there are none. So a failure of the channel below is not
/// detected until the transformers have nothing to output.
ZPK_EXPORT ZPKDataChannelPtr createChannelTransformerWithPreCall(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, ZPKErrorPtr* error = nullptr);

/// Does the work of both; `preread` selects the second.
ZPK_EXPORT ZPKDataChannelPtr createChannelTransformer__internal(
    const ZPKDataChannelPtr& channel, const ZPKDataTransformerArray& readTransformers,
    const ZPKDataTransformerArray& writeTransformers, bool preread, ZPKErrorPtr* error = nullptr);

/// A channel that reads ahead: while it is open, a thread of its own reads the channel below, in
/// slices of 1/30 second, so that the device is drained whatever the caller does. A read returns
/// all bytes that have arrived, as soon as there are any, and waits for them by the system's wall
/// clock. Unread bytes are kept without limit. Writes pass. The thread starts with a successful
/// open, or immediately if `channel` is open, and holds the new channel until it ends: release an
/// open channel only after close.
///
/// close may run on any thread during a read, and during a write if the channel below allows that;
/// a base channel does, see ZPKDataChannel.h. It waits for the thread, for at most one slice, and
/// then closes below; a waiting read returns null without an error. Unread bytes are lost, also
/// when a read below fails, even a whole response that is immediately followed by a hang-up. Such a
/// failure ends the thread: a waiting read gets its error, every later read code 2, and close fails
/// with the error's domain and user information and code 2, without closing the channel below. An
/// open starts again. If memory runs out on the thread, that is such a failure too, code 5 with
/// ENOMEM, and the channel below is closed.
///
/// If the system cannot start the thread, one log line says "Failed to start thread". open then
/// closes below again and fails with that text, code 5. Over an open channel, the new channel is
/// closed, its close fails with that text, code 2, and the channel below stays open.
///
/// reset and open fail with code 1 while it is open; a read fails with code 5 if the system cannot
/// wait. Fails for a null channel.
ZPK_EXPORT ZPKDataChannelPtr createActiveChannel(const ZPKDataChannelPtr& channel,
                                                 ZPKErrorPtr* error = nullptr);

/// Like createActiveChannel, except that it drops the bytes it reads: the thread only makes the
/// channels below see all traffic. Reads and writes fail with code 6, whether it is open or not.
ZPK_EXPORT ZPKDataChannelPtr createActiveNullChannel(const ZPKDataChannelPtr& channel,
                                                     ZPKErrorPtr* error = nullptr);

/// A channel whose read keeps reading the channel below, in slices of a tenth of the timeout and on
/// the caller's thread, until bytes arrive, the timeout expires, or the channel closes. It returns
/// empty data no earlier than the timeout, and at most about one slice later. If the channel closes
/// between two slices, it returns null and sets the slot to null. Time is the system's wall clock,
/// so setting the clock during a read moves its end. A negative timeout other than FOREVER is
/// passed down and rejected there.
///
/// Fails for a null channel.
ZPK_EXPORT ZPKDataChannelPtr createPassiveChannel(const ZPKDataChannelPtr& channel,
                                                  ZPKErrorPtr* error = nullptr);

/// A channel that removes the echoes of written lines from the bytes that are read. A line is a run
/// of bytes up to and including `delimiter`, which is copied. Each complete line that was written
/// waits for its echo. If a line that is read equals the oldest of these, byte for byte, it is
/// dropped; any other line passes. An echo that is read before its write has returned passes too.
///
/// Each read reads below one time; the result is empty data if everything was echo. While an echo
/// is awaited, bytes that do not end with the delimiter, a prompt for instance, are held back; if
/// the device does not echo, they are held back until reset. open and close forget nothing. reset
/// forgets both the buffered bytes and the awaited echoes, even if it fails below.
///
/// Fails for a null channel, then for a delimiter that is null or empty.
ZPK_EXPORT ZPKDataChannelPtr createEchoRemovalChannel(const ZPKDataChannelPtr& channel,
                                                      const ZPKDataPtr& delimiter,
                                                      ZPKErrorPtr* error = nullptr);

/// A channel that copies everything that is read and written into the text file at `filePath`, one
/// line each:
///
///     2024-05-01 12:00:00.250 <pre--write>[4711]: version
///     2024-05-01 12:00:00.310 <pre---read>[4711]: 2.33
///
/// A line begins with the local time, the direction and the process, with `identifier` ("pre-"
/// here) in front of the direction. Bytes and results pass unchanged. Bytes that are written,
/// passwords included, are logged before they are sent, whether or not that succeeds; empty data is
/// not logged. Valid UTF-8 is written to the file unchanged, including escape sequences and the
/// line breaks of Unicode; other bytes appear as in ZPKDataToString.
///
/// open opens the file, then the channel below. A missing file is created, with the permissions
/// 0666 less the process's umask; an existing one grows at its end and keeps its permissions. If it
/// cannot be created, open fails with a line in the log and no error; if it cannot be opened, with
/// the system's error (domain "POSIX"; ENXIO for a FIFO that is not being read). The channel below
/// then stays closed. close closes the file after writing everything that was logged. A channel
/// that is released without close also writes its pending lines, but perhaps later. Nothing is
/// logged while the file is not open.
///
/// With `synchronousLogging` a read or write returns when its lines are in the file. Otherwise they
/// are written in the background: immediately after a pause, together with others during busy
/// traffic. So a program that ends without close, or is killed, can lose the last of its traffic:
/// what was logged since the write before the last one began, which takes milliseconds on a local
/// disk. Its last chunk can be cut. fsync(2) is never called. The channel has a thread for this,
/// which open starts and close ends, and which sleeps while idle (8.5 KiB of resident memory). If
/// the system cannot start it, open continues, and a read or write returns when its lines are in
/// the file. A slow disk delays neither reads nor writes: the lines wait in memory, without limit,
/// and close waits until they are written.
///
/// Several channels and processes can share one file; each locks it (flock(2)) while it writes its
/// lines. Anyone who may read the file can lock it too: a write waits for the lock for at most a
/// second, then continues without it, and the first time says so in the log. Lines that do not fit,
/// on a full disk for instance, are lost silently, and the traffic continues. The beginning of a
/// chunk that fits stays. When there is room again, the log goes on. The file stays the one that
/// was opened, even if it is moved or removed; a close and an open use the one of that name again.
///
/// Fails for a null channel, then for a null path, then for a null identifier.
ZPK_EXPORT ZPKDataChannelPtr createLoggingChannel(const ZPKDataChannelPtr& channel,
                                                  std::optional<std::string_view> filePath,
                                                  std::optional<std::string_view> identifier,
                                                  bool synchronousLogging,
                                                  ZPKErrorPtr* error = nullptr);

/// A channel that writes one byte at a time, with a pause of `microSecondDelay` microseconds before
/// each, on the caller's thread. Empty and null data succeed without reaching the channel below. If
/// a byte fails, those before it have been sent. Reads pass.
///
/// Fails for a null channel.
ZPK_EXPORT ZPKDataChannelPtr createInterCharacterDelayChannel(const ZPKDataChannelPtr& channel,
                                                              uint32_t microSecondDelay,
                                                              ZPKErrorPtr* error = nullptr);

/// A channel whose reads return one unit of `transformer` each. If a unit is already buffered, the
/// read returns it without reading below. Otherwise it reads below one time, and the result may be
/// empty. Writes pass. The transformer is shared: its terminator can be changed while the channel
/// is in use.
///
/// Fails for a null channel, then for a null transformer.
ZPK_EXPORT ZPKDataChannelPtr createAggregatingTransformerChannel(
    const ZPKDataChannelPtr& channel, const ZPKMutableDataAggregatorTransformerPtr& transformer,
    ZPKErrorPtr* error = nullptr);
