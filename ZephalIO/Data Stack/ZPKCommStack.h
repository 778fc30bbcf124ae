/// @file
/// The stack: configure, create, open, talk. Start here.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKECIDSwapDetectTransformer.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Data Transformers/ZPKMutableDataAppendingTransformer.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKRegex.h"

class ZPIStackChain;

/// Talks to a device: sends a command and gets the response, which ends with the device's prompt.
///
///     ZPKErrorPtr error;
///     auto stack = ZPKCommStack::init();
///     stack->setDelimiter("=> ", &error);
///     if (!stack->createStackWithURL("uart:///dev/ttyUSB0", &error) ||
///         !stack->openWithTimeout(std::nullopt, &error)) return report(error);
///     std::optional<std::string> answer = stack->sendCommandString("version", 2.0, &error);
///
/// There are three steps, in this order. Configure: call init and the setters. Create: the stack
/// builds a chain of channels from the settings. Open: the chain opens from the top down. close
/// undoes only the last step; the chain stays and can be opened again. A failed read closes the
/// transport, so an open stack can become closed by itself. Then the next call that talks fails
/// with code 304, and close with code 2 from below. To reconnect, create the stack again: you may
/// also open the old chain, but if it has buffered a part of a response, the next response begins
/// with that.
///
/// Errors are in the domain "zephal-commchannel" unless stated otherwise, or are passed up from the
/// chain in "zephal-communication". Test the result and not the slot: a few failures have no error.
/// Timeouts are in seconds: ZEPHAL_COMMUNICATION_TIME_NOW, any positive number, or
/// ZEPHAL_COMMUNICATION_TIME_FOREVER, which null stands for. Any other negative number is rejected
/// when the read would wait, with code 3 of "zephal-communication"; a response that is already
/// buffered is returned before that. Strings are UTF-8.
///
/// Threads: every operation holds one recursive lock from start to end, even during a blocking
/// read. While one thread waits in a read, or in a write to a peer that does not read, all other
/// operations of the stack wait for it, including close and isOpen; closing does not cancel a read.
/// A command and its response cannot interleave with another thread's. The plain accessors at the
/// end take no lock and are safe on any thread. Do not destroy the stack while a thread is inside
/// it. Destroying it closes an open chain and logs the error of a failed close.
class ZPK_EXPORT ZPKCommStack {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A stack with the delimiter "> ", the line terminator "\n", timeouts as errors, and no chain.
  static std::shared_ptr<ZPKCommStack> init();

  explicit ZPKCommStack(Key);
  ZPKCommStack(const ZPKCommStack&) = delete;
  ZPKCommStack& operator=(const ZPKCommStack&) = delete;
  ~ZPKCommStack();

  /// @name Configure
  /// @{

  /// Expects the device with this ECID (an unsigned 64-bit value; null turns detection off) and
  /// forgets an earlier swap. Fails with code 302 after a chain was created.
  bool enableECIDSwapDetectionWithECID(std::optional<ZPKNumber> ecid, ZPKErrorPtr* error = nullptr);
  /// Sets whether a read without bytes at its timeout is an error (code 305) or empty data; null
  /// counts as false. Always true.
  bool setTimeoutIsException(std::optional<ZPKNumber> value, ZPKErrorPtr* error);
  /// Sets the delimiter that ends a response. It also applies to an open stack, from the next read
  /// on, and to bytes that are already buffered. With null and "" the bytes pass without being
  /// split. Always true.
  bool setDelimiter(std::optional<std::string_view> delimiter, ZPKErrorPtr* error = nullptr);
  /// Sets the line terminator that ends every write. It also applies to an open stack. Null and ""
  /// add nothing. Always true.
  bool setLineTerminator(std::optional<std::string_view> terminator, ZPKErrorPtr* error = nullptr);

  /// @}

  /// @name Configure the optional layers
  /// Each of these fails with code 302 after a chain was created.
  /// @{

  /// Sets the bytes that are removed wherever they appear in a response. Each text stands for bytes
  /// in hexadecimal (see ZPKDataFromHexString). They replace the filters of an earlier call; an
  /// empty list clears them. Fails without an error for a text that is not hexadecimal, and with
  /// code 3 of "zephal-communication" for an empty one; the earlier filters then stay.
  bool setReadFiltersHex(const std::vector<std::string>& filters, ZPKErrorPtr* error = nullptr);
  /// Like setReadFiltersHex, with the texts' own bytes. These filters run after the others.
  bool setReadFilters(const std::vector<std::string>& filters, ZPKErrorPtr* error = nullptr);
  /// Sets the files of the two logs. The first gets the conversation as the caller sees it, command
  /// and response; the second gets the bytes on the wire, in the chunks in which they pass. Null
  /// means no log. Only openWithTimeout opens the files. They grow at their end and may be the same
  /// file; see createLoggingChannel.
  bool setLogFilePath(std::optional<std::string_view> path,
                      std::optional<std::string_view> preAggregatorPath,
                      ZPKErrorPtr* error = nullptr);
  /// Sets whether a background thread reads the device while the stack is open, whatever the caller
  /// is doing; see createActiveChannel. A response that is immediately followed by a hang-up may
  /// then be lost. Null counts as false, the default.
  bool setActiveChannelOnOff(std::optional<ZPKNumber> onOff, ZPKErrorPtr* error);

  /// @}

  /// @name Create and open
  /// @{

  /// Builds the chain on the base channel that createBaseChannelWithTransport creates for the URL,
  /// and passes on the errors of that function.
  bool createStackWithURL(std::optional<std::string_view> url, ZPKErrorPtr* error = nullptr);
  /// Builds the chain on `channel`, which is shared with the caller. A closed chain is replaced and
  /// its buffered bytes are dropped; if the chain is open, this fails with code 303. Null fails
  /// without an error. If the channel is already open, so is the stack, but it writes no logs.
  bool createStackWithBaseChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error = nullptr);
  /// Opens the chain. The timeout is passed down and ignored at the bottom: connecting takes as
  /// long as the system needs. Fails with code 301 without a chain, with code 303 if it is open,
  /// and with the error of a layer. A refused connection has no error: errno(3) holds the reason
  /// immediately after the call, and logs that were opened stay open. You may try again
  /// immediately.
  bool openWithTimeout(std::optional<ZPKNumber> timeout, ZPKErrorPtr* error = nullptr);
  /// 1 if the chain is open, otherwise 0. Never touches the slot.
  ZPKNumber isOpen(ZPKErrorPtr* error = nullptr) const;
  /// Closes the chain and, if that succeeds, resets it, which drops buffered bytes. Without a chain
  /// it fails without an error.
  bool close(ZPKErrorPtr* error = nullptr);

  /// @}

  /// @name Talk
  /// Each of these fails with code 304 if the chain is not open, or if there is none.
  ///
  /// A response ends with its delimiter, which is kept. Bytes after the delimiter, and a part of a
  /// response that had arrived when the timeout expired, are buffered and begin the next response;
  /// so a late response answers the next command. After a different device was detected on the
  /// line, reads and commands fail with code 309 and the two ECIDs as the description; closing and
  /// reopening does not change that.
  /// @{

  /// Writes the bytes and the line terminator; for empty data only the terminator. Null fails
  /// without an error. A failed write leaves the stack open. There is no time limit: until the peer
  /// reads, the write and with it every other operation waits, unless the base channel is closed on
  /// another thread (see ZPKDataChannel.h).
  bool writeData(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr);
  /// Reads up to the delimiter, and waits for up to `timeout` and at most about a tenth of it
  /// longer. A delimiter that is not null applies to this read only. If no whole response arrives
  /// in time, it fails with code 305, or returns empty data if timeouts are not errors. A response
  /// that a filter removes completely counts as none, without waiting for the timeout. With an
  /// empty delimiter a read first waits for new bytes even if others are buffered, under FOREVER
  /// without limit.
  ZPKDataPtr readDataWithTimeout(std::optional<ZPKNumber> timeout, const ZPKDataPtr& delimiter,
                                 ZPKErrorPtr* error = nullptr);
  /// Writes the command, then reads its response like readDataWithTimeout. The text of code 305 and
  /// its log line show the command, even if it is a password. If the command cannot be written, it
  /// fails with the error of the transport; a null command fails without an error.
  ZPKDataPtr sendCommandData(const ZPKDataPtr& command, std::optional<ZPKNumber> timeout,
                             ZPKErrorPtr* error = nullptr);

  /// Like writeData, with the string's bytes.
  bool writeString(std::optional<std::string_view> string, ZPKErrorPtr* error = nullptr);
  /// Like readDataWithTimeout. If the bytes are not UTF-8, it fails with code 306 and they are
  /// lost.
  std::optional<std::string> readStringWithTimeout(std::optional<ZPKNumber> timeout,
                                                   std::optional<std::string_view> delimiter,
                                                   ZPKErrorPtr* error = nullptr);
  /// Like sendCommandData, with code 306 as above.
  std::optional<std::string> sendCommandString(std::optional<std::string_view> command,
                                               std::optional<ZPKNumber> timeout,
                                               ZPKErrorPtr* error = nullptr);
  /// Like sendCommandString, for a device that echoes: the first occurrence of the command with its
  /// line terminator is removed from the response, wherever it is. An echo with a different line
  /// break is kept: a console that echoes CR LF, as most do, needs setLineTerminator("\r").
  std::optional<std::string> sendCommandStringWithEchoRemoval(
      std::optional<std::string_view> command, std::optional<ZPKNumber> timeout,
      ZPKErrorPtr* error = nullptr);
  /// Like the function above, but returns only the part of the response that `regex` selects: the
  /// first capture group of its first match, or the whole match if there is no such group or it
  /// took no part. A null regex selects everything. Fails with code 308 if there is no match.
  std::optional<std::string> sendCommandStringWithEchoRemoval(
      std::optional<std::string_view> command, const ZPKRegexPtr& regex,
      std::optional<ZPKNumber> timeout, ZPKErrorPtr* error = nullptr);

  /// @}

  /// @name Plain accessors
  /// Each is safe on any thread and changes only the field: nothing is checked, and a chain that
  /// was already created keeps its parts.
  /// @{

  /// Whether the next chain gets a background reader; false at first.
  bool activeChannelOnOff() const;
  /// Sets whether the next chain gets a background reader, without the check of the operation of
  /// the same name.
  void setActiveChannelOnOff(bool onOff);
  /// Whether a read without bytes at its timeout is an error; true at first.
  bool timeoutIsException() const;
  /// Sets whether a read without bytes at its timeout is an error. It also applies to an open
  /// stack.
  void setTimeoutIsException(bool value);
  /// The top of the chain; null until one is created.
  ZPKDataChannelPtr commChannel() const;
  /// Replaces the chain, and opens and closes nothing; null means no chain. The next operation uses
  /// the new one.
  void setCommChannel(ZPKDataChannelPtr channel);
  /// The aggregator that splits the stream; the chain holds the same object.
  ZPKMutableDataAggregatorTransformerPtr aggregator() const;
  /// Replaces the aggregator. The present chain keeps its own, and delimiters that are set later no
  /// longer reach it. With null, a chain cannot be created: code 3 of "zephal-communication".
  void setAggregator(ZPKMutableDataAggregatorTransformerPtr aggregator);
  /// The appender that ends every write; the chain holds the same object.
  ZPKMutableDataAppendingTransformerPtr appender() const;
  /// Replaces the appender. The present chain keeps its own, and terminators that are set later no
  /// longer reach it. With null, a chain cannot be created: code 3 of "zephal-communication".
  void setAppender(ZPKMutableDataAppendingTransformerPtr appender);
  /// The read filters created from text; null until some are set.
  std::optional<ZPKDataTransformerArray> readFilterTransformers() const;
  /// Replaces the filters of the next chain by transformers of any kind. A list that contains null
  /// makes its creation fail with code 3 of "zephal-communication".
  void setReadFilterTransformers(std::optional<ZPKDataTransformerArray> transformers);
  /// The read filters created from hexadecimal text; null until some are set.
  std::optional<ZPKDataTransformerArray> readFilterHexTransformers() const;
  /// Replaces the filters that run before the others, likewise.
  void setReadFilterHexTransformers(std::optional<ZPKDataTransformerArray> transformers);
  /// The swap detector; the chain holds the same object.
  ZPKECIDSwapDetectTransformerPtr ecidChecker() const;
  /// Replaces the swap detector of the next chain. With null, a chain cannot be created: code 3 of
  /// "zephal-communication".
  void setEcidChecker(ZPKECIDSwapDetectTransformerPtr checker);
  /// The text of a swap that was detected; null if there was none. The only way to continue with a
  /// chain after a swap is to set this to null.
  std::optional<std::string> ecidSwapInformation() const;
  /// Sets the text of a swap. While it is not null, reads and commands fail with code 309 and this
  /// text.
  void setEcidSwapInformation(std::optional<std::string> information);
  /// The path of the log at the chain's outer end; null for none.
  std::optional<std::string> logFilePath() const;
  /// Replaces the path for the next chain, without the check of the operation of the same name.
  void setLogFilePath(std::optional<std::string> path);
  /// The path of the log at the chain's raw end; null for none.
  std::optional<std::string> preAggregatorLogFilePath() const;
  /// Replaces the path for the next chain, likewise.
  void setPreAggregatorLogFilePath(std::optional<std::string> path);

  /// @}

 private:
  ZPKDataChannelPtr chainOn(ZPKDataChannelPtr channel, ZPKErrorPtr* error) const;
  ZPKDataTransformerArray readTransformers() const;
  bool isTimeout(const ZPKDataPtr& data) const;

  const std::unique_ptr<ZPIStackChain> _chain;  // and the lock that each operation holds
  std::atomic<bool> _activeChannelOnOff{false};
  std::atomic<bool> _timeoutIsException{true};
  ZPKAtomic<ZPKMutableDataAggregatorTransformerPtr> _aggregator;
  ZPKAtomic<ZPKMutableDataAppendingTransformerPtr> _appender;
  ZPKAtomic<std::optional<ZPKDataTransformerArray>> _readFilterTransformers;
  ZPKAtomic<std::optional<ZPKDataTransformerArray>> _readFilterHexTransformers;
  ZPKAtomic<ZPKECIDSwapDetectTransformerPtr> _ecidChecker;
  ZPKAtomic<std::optional<std::string>> _ecidSwapInformation;
  ZPKAtomic<std::optional<std::string>> _logFilePath;
  ZPKAtomic<std::optional<std::string>> _preAggregatorLogFilePath;

  // The stack's own copy of a property that every command reads, so that a read takes no lock of
  // the property. Guarded by the lock of the operations.
  ZPKAtomic<std::optional<std::string>>::Snapshot _currentSwap;
};

/// A shared stack.
using ZPKCommStackPtr = std::shared_ptr<ZPKCommStack>;
