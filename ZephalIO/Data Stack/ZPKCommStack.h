#pragma once

#include <atomic>
#include <memory>
#include <mutex>
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

/// Talks to a device: gives a command and gets the response, which ends at the device's prompt.
///
///     ZPKErrorPtr error;
///     auto stack = ZPKCommStack::init();
///     stack->setDelimiter("=> ", &error);
///     if (!stack->createStackWithURL("uart:///dev/ttyUSB0", &error) ||
///         !stack->openWithTimeout(std::nullopt, &error)) return report(error);
///     std::optional<std::string> answer = stack->sendCommandString("version", 2.0, &error);
///
/// Three steps, in this order. Configure: make it and call the setters. Create: a chain of channels
/// is built from the settings. Open: the chain opens from the top down. close ends the last step
/// and leaves the chain, which can be opened again. A failed read closes the transport, so an open
/// stack can fall back to closed by itself; the next call that talks then fails with code 304, and
/// close with code 2 from below. To reconnect create the stack again: the old chain may be opened
/// too, but it keeps a part of a response, with which the next one then begins.
///
/// Errors are in the domain "zephal-commchannel" unless told otherwise, or come up from the chain
/// in "zephal-communication". Test the result and not the slot: a few failures have no error.
/// Timeouts are in seconds: ZEPHAL_COMMUNICATION_TIME_NOW, any positive number, or
/// ZEPHAL_COMMUNICATION_TIME_FOREVER, which null stands for. Any other negative number is refused
/// where the read waits, with code 3 of "zephal-communication"; a response that is already held
/// comes out before that. Strings are UTF-8.
///
/// Threads: one recursive lock is held over the whole of every operation, a blocking read included.
/// While one thread waits in a read, or in a write to a peer that does not read, every other
/// operation of the stack waits for it, close and isOpen too; closing does not cancel a read. A
/// command and its response cannot interleave with another thread's. The plain accessors at the end
/// take no lock and are safe on any thread. The stack must not be destroyed while a thread is
/// inside it; an open chain is closed then, and what a failed close says goes to the log.
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

  // --- Configure.

  /// Expects the device with this ECID (an unsigned 64-bit value; null turns detection off) and
  /// forgets an earlier swap. Fails with code 302 once a chain was created.
  bool enableECIDSwapDetectionWithECID(std::optional<ZPKNumber> ecid, ZPKErrorPtr* error = nullptr);
  /// Whether a read that yields no bytes in its time is an error (code 305) or empty data; null
  /// counts as false. Always true.
  bool setTimeoutIsException(std::optional<ZPKNumber> value, ZPKErrorPtr* error);
  /// Where a response ends. Works on an open stack too, from the next read on, and covers bytes
  /// that are held already. Null and "" let all bytes through uncut. Always true.
  bool setDelimiter(std::optional<std::string_view> delimiter, ZPKErrorPtr* error = nullptr);
  /// What ends every write. Works on an open stack too. Null and "" add nothing. Always true.
  bool setLineTerminator(std::optional<std::string_view> terminator, ZPKErrorPtr* error = nullptr);

  // The settings of the optional layers. Each fails with code 302 once a chain was created.

  /// What is cut out of every response, each text wherever it stands: the bytes that hexadecimal
  /// texts name (see ZPKDataFromHexString). They replace the filters of an earlier call; none
  /// clears them. Fails without an error for a text that is not hexadecimal, and with code 3 of
  /// "zephal-communication" for an empty one; the earlier filters stay then.
  bool setReadFiltersHex(const std::vector<std::string>& filters, ZPKErrorPtr* error = nullptr);
  /// As setReadFiltersHex, with the texts' own bytes. They are cut out after those.
  bool setReadFilters(const std::vector<std::string>& filters, ZPKErrorPtr* error = nullptr);
  /// The files that log the conversation as the caller sees it, command and response, and the bytes
  /// as they pass on the wire, in the chunks in which they come. Null means none. Both are opened
  /// by openWithTimeout alone, grow at their end and may be the same file; see
  /// createLoggingChannel.
  bool setLogFilePath(std::optional<std::string_view> path,
                      std::optional<std::string_view> preAggregatorPath,
                      ZPKErrorPtr* error = nullptr);
  /// Whether a background thread reads the device all the time that the stack is open, whatever the
  /// caller is doing; see createActiveChannel. A response that is followed at once by a hang-up may
  /// be lost with it. Null counts as false, the default.
  bool setActiveChannelOnOff(std::optional<ZPKNumber> onOff, ZPKErrorPtr* error);

  // --- Create and open.

  /// Builds the chain on the base channel that createBaseChannelWithTransport makes of the URL,
  /// whose errors it passes on.
  bool createStackWithURL(std::optional<std::string_view> url, ZPKErrorPtr* error = nullptr);
  /// Builds the chain on `channel`, which is shared with the caller. A chain that is closed is
  /// replaced, and bytes held from it go; one that is open fails with code 303. Null fails without
  /// an error. A channel that is open already gives a stack that is open, and that writes no logs.
  bool createStackWithBaseChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error = nullptr);
  /// Opens the chain. The timeout is handed down and ignored at the bottom: a transport connects in
  /// its own time. Fails with code 301 without a chain, with 303 if it is open, and with what the
  /// layers report. A connection that is refused gives no error: errno(3) says why straight after
  /// the call, and logs that were opened stay open. May be tried again at once.
  bool openWithTimeout(std::optional<ZPKNumber> timeout, ZPKErrorPtr* error = nullptr);
  /// 1 if the chain is open, otherwise 0. Never touches the slot.
  ZPKNumber isOpen(ZPKErrorPtr* error = nullptr) const;
  /// Closes the chain and, if that went well, resets it, which drops bytes that are held. Without a
  /// chain it fails without an error.
  bool close(ZPKErrorPtr* error = nullptr);

  // --- Talk. Each fails with code 304 if the chain is not open, also if there is none.
  //
  // A response ends with its delimiter, which is not taken off. Bytes behind the delimiter, and a
  // part of a response that was there when the time ran out, are kept and begin the next response;
  // so a late response answers the next command. Reads and commands fail with code 309 from the
  // moment that another device was found at the line, with the two ECIDs as the description;
  // closing and reopening does not change that.

  /// Writes the bytes and the line terminator; empty data sends the terminator alone. Null fails
  /// without an error. A write that fails leaves the stack open. There is no time limit: a peer
  /// that does not read holds up the write, and with it every other operation, until the base
  /// channel is closed on another thread (see ZPKDataChannel.h).
  bool writeData(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr);
  /// Reads up to the delimiter, waiting for as long as `timeout` says and about a tenth of that
  /// longer at the most. A delimiter that is not null holds for this one read. Fails with code 305
  /// if no whole response came in time, unless timeouts are no errors: the result is empty data
  /// then. A response that a filter removes whole counts as none, at once. With an empty delimiter
  /// a read first waits for new bytes, without a limit if it has none, though others are held.
  ZPKDataPtr readDataWithTimeout(std::optional<ZPKNumber> timeout, const ZPKDataPtr& delimiter,
                                 ZPKErrorPtr* error = nullptr);
  /// Writes the command, then reads its response as readDataWithTimeout does. The text of its code
  /// 305, and the line in the log, show the command, be it a password. A command that cannot be
  /// written fails with what the transport reports; a null one without an error.
  ZPKDataPtr sendCommandData(const ZPKDataPtr& command, std::optional<ZPKNumber> timeout,
                             ZPKErrorPtr* error = nullptr);

  /// As writeData, with the string's bytes.
  bool writeString(std::optional<std::string_view> string, ZPKErrorPtr* error = nullptr);
  /// As readDataWithTimeout. Fails with code 306, and the bytes are lost, if they are not UTF-8.
  std::optional<std::string> readStringWithTimeout(std::optional<ZPKNumber> timeout,
                                                   std::optional<std::string_view> delimiter,
                                                   ZPKErrorPtr* error = nullptr);
  /// As sendCommandData, with code 306 as above.
  std::optional<std::string> sendCommandString(std::optional<std::string_view> command,
                                               std::optional<ZPKNumber> timeout,
                                               ZPKErrorPtr* error = nullptr);
  /// As sendCommandString, for a device that echoes: the first occurrence of the command with its
  /// line terminator is removed from the response, wherever it stands. An echo with another line
  /// end stays: a console that echoes CR LF, as most do, wants setLineTerminator("\r").
  std::optional<std::string> sendCommandStringWithEchoRemoval(
      std::optional<std::string_view> command, std::optional<ZPKNumber> timeout,
      ZPKErrorPtr* error = nullptr);
  /// As above, and then the part of the response that `regex` picks: the first capture group of its
  /// first match, or the whole match if there is no such group or it took no part. A null regex
  /// picks all. Fails with code 308 if there is no match.
  std::optional<std::string> sendCommandStringWithEchoRemoval(
      std::optional<std::string_view> command, const ZPKRegexPtr& regex,
      std::optional<ZPKNumber> timeout, ZPKErrorPtr* error = nullptr);

  // --- Plain accessors. Each is safe on any thread and changes the field alone: nothing is
  // checked, and a chain that was created keeps what it was made of.

  bool activeChannelOnOff() const;
  void setActiveChannelOnOff(bool onOff);
  bool timeoutIsException() const;
  void setTimeoutIsException(bool value);
  /// The top of the chain; null as long as none was created.
  ZPKDataChannelPtr commChannel() const;
  void setCommChannel(ZPKDataChannelPtr channel);
  /// What cuts the stream; the chain holds the same object.
  ZPKMutableDataAggregatorTransformerPtr aggregator() const;
  void setAggregator(ZPKMutableDataAggregatorTransformerPtr aggregator);
  /// What ends every write; the chain holds the same object.
  ZPKMutableDataAppendingTransformerPtr appender() const;
  void setAppender(ZPKMutableDataAppendingTransformerPtr appender);
  /// The read filters made from text; null as long as none were set.
  std::optional<ZPKDataTransformerArray> readFilterTransformers() const;
  void setReadFilterTransformers(std::optional<ZPKDataTransformerArray> transformers);
  /// The read filters made from hexadecimal text; null as long as none were set.
  std::optional<ZPKDataTransformerArray> readFilterHexTransformers() const;
  void setReadFilterHexTransformers(std::optional<ZPKDataTransformerArray> transformers);
  /// The swap detector; the chain holds the same object.
  ZPKECIDSwapDetectTransformerPtr ecidChecker() const;
  void setEcidChecker(ZPKECIDSwapDetectTransformerPtr checker);
  /// The text of a swap that was found; null if none was. Setting it to null is the one way to go
  /// on with a chain after a swap.
  std::optional<std::string> ecidSwapInformation() const;
  void setEcidSwapInformation(std::optional<std::string> information);
  /// The path of the log of the chain's outer end; null for none.
  std::optional<std::string> logFilePath() const;
  void setLogFilePath(std::optional<std::string> path);
  /// The path of the log of the chain's raw end; null for none.
  std::optional<std::string> preAggregatorLogFilePath() const;
  void setPreAggregatorLogFilePath(std::optional<std::string> path);

 private:
  ZPKDataChannelPtr chainOn(ZPKDataChannelPtr channel, ZPKErrorPtr* error) const;
  ZPKDataTransformerArray readTransformers() const;
  bool isTimeout(const ZPKDataPtr& data) const;
  ZPKDataPtr readWithDelimiter(ZPKDataChannel& channel, double timeout, const ZPKDataPtr& delimiter,
                               ZPKErrorPtr* error);

  mutable std::recursive_mutex _lock;
  std::atomic<bool> _activeChannelOnOff{false};
  std::atomic<bool> _timeoutIsException{true};
  ZPKAtomic<ZPKDataChannelPtr> _commChannel;
  ZPKAtomic<ZPKMutableDataAggregatorTransformerPtr> _aggregator;
  ZPKAtomic<ZPKMutableDataAppendingTransformerPtr> _appender;
  ZPKAtomic<std::optional<ZPKDataTransformerArray>> _readFilterTransformers;
  ZPKAtomic<std::optional<ZPKDataTransformerArray>> _readFilterHexTransformers;
  ZPKAtomic<ZPKECIDSwapDetectTransformerPtr> _ecidChecker;
  ZPKAtomic<std::optional<std::string>> _ecidSwapInformation;
  ZPKAtomic<std::optional<std::string>> _logFilePath;
  ZPKAtomic<std::optional<std::string>> _preAggregatorLogFilePath;

  // What every command looks at, read without a lock of its own and, of the chain, without keeping
  // it alive. Guarded by _lock.
  ZPKAtomic<ZPKDataChannelPtr>::WeakSnapshot _currentChannel;
  ZPKAtomic<std::optional<std::string>>::Snapshot _currentSwap;
};

using ZPKCommStackPtr = std::shared_ptr<ZPKCommStack>;
