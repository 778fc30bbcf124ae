/// @file
/// The stack that only listens and records a console.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKNumber.h"

class ZPIStackChain;

/// Records a device's console: a background thread reads everything that arrives, logs it and drops
/// it. Nothing is ever sent, and nothing can be read through the stack.
///
///     ZPKErrorPtr error;
///     auto recorder = ZPKCommLoggerStack::init();
///     recorder->setDelimiter("\n");
///     recorder->setLogFilePath("console.log", "console.raw.log", &error);
///     if (!recorder->createStackWithURL("uart:///dev/ttyUSB0", &error) ||
///         !recorder->open(&error)) return report(error);
///
/// The steps are those of ZPKCommStack: configure, create, open. From open to close the thread
/// reads and logs, unless a read of the transport fails. Then the device has gone away and logging
/// stops; only the log line of that read and isOpen, which becomes 0, show it. close then fails
/// with code 2 and the text of that read's error, and the old chain keeps its log files open and
/// the bytes that have no delimiter yet. The stack does not reconnect by itself: create it again,
/// which drops both, and open it. You may also open the old chain.
///
/// Errors are in the domain "zephal-commloggerchannel" unless stated otherwise, or are passed up
/// from the chain in "zephal-communication". Test the result and not the slot. Timeouts are in
/// seconds; null stands for ZEPHAL_COMMUNICATION_TIME_FOREVER. Strings are UTF-8.
///
/// Threads: every operation holds one recursive lock from start to end; the background thread does
/// not take it. The plain accessors at the end take no lock and are safe on any thread. Destroying
/// the stack closes an open chain and logs the error of a failed close.
class ZPK_EXPORT ZPKCommLoggerStack {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A stack without a delimiter, without logs and without a chain.
  static std::shared_ptr<ZPKCommLoggerStack> init();

  explicit ZPKCommLoggerStack(Key);
  ZPKCommLoggerStack(const ZPKCommLoggerStack&) = delete;
  ZPKCommLoggerStack& operator=(const ZPKCommLoggerStack&) = delete;
  ~ZPKCommLoggerStack();

  /// @name Configure
  /// @{

  /// Sets the files of the two logs. The first gets the stream split at the delimiter, one entry
  /// for each unit however many reads it took; the second gets the raw chunks as they arrive. Null
  /// means no log; without both, everything is dropped. Fails with code 302 after a chain was
  /// created.
  bool setLogFilePath(std::optional<std::string_view> path,
                      std::optional<std::string_view> preAggregatorPath,
                      ZPKErrorPtr* error = nullptr);
  /// Sets the delimiter that ends a unit. It also applies to an open stack and to bytes that are
  /// already buffered. Null and "", the default, do not split the stream. Bytes that still have no
  /// delimiter at close appear only in the raw log, and so can units that arrive during close.
  /// Always true.
  bool setDelimiter(std::optional<std::string_view> delimiter, ZPKErrorPtr* error = nullptr);

  /// @}

  /// @name Create and open
  /// @{

  /// Builds the chain on the base channel that the URL names (see createBaseChannelWithTransport),
  /// and passes on the errors of that channel's factory. A different scheme fails with code 300. On
  /// an open stack every URL fails with code 303.
  bool createStackWithURL(std::optional<std::string_view> url, ZPKErrorPtr* error = nullptr);
  /// Builds the chain on `channel`, which is shared with the caller. A closed chain is replaced; if
  /// the chain is open, this fails with code 303. Null fails without an error. If the channel is
  /// already open, the thread starts immediately, and nothing is logged, since open was not called.
  bool createStackWithBaseChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error = nullptr);
  /// Like openWithTimeout with null.
  bool open(ZPKErrorPtr* error = nullptr);
  /// Opens the chain and the logs. Fails with code 301 without a chain, with code 303 if it is
  /// open, and with the error of a layer. A refused connection has no error: errno(3) holds the
  /// reason immediately after the call. Logs that were opened then stay open, and close fails with
  /// code 2 of "zephal-communication"; you may try to open again immediately.
  bool openWithTimeout(std::optional<ZPKNumber> timeout, ZPKErrorPtr* error = nullptr);
  /// 1 if the chain is open, otherwise 0. Never touches the slot.
  ZPKNumber isOpen(ZPKErrorPtr* error = nullptr) const;
  /// Stops the thread, closes the logs and the chain and, if that succeeds, resets the chain. If
  /// the device has gone away, it fails and closes nothing (see above). Without a chain it fails
  /// without an error.
  bool close(ZPKErrorPtr* error = nullptr);

  /// @}

  /// @name Plain accessors
  /// Each is safe on any thread and changes only the field.
  /// @{

  /// The top of the chain; null until one is created.
  ZPKDataChannelPtr commChannel() const;
  /// Replaces the chain, and opens and closes nothing; null means no chain.
  void setCommChannel(ZPKDataChannelPtr channel);
  /// The aggregator that splits the stream; the chain holds the same object. A chain that is
  /// created without one does not split the stream, and its close closes everything but then fails
  /// without an error.
  ZPKMutableDataAggregatorTransformerPtr aggregator() const;
  /// Replaces the aggregator for the next chain; may be null. The present chain keeps its own,
  /// which setDelimiter then no longer reaches.
  void setAggregator(ZPKMutableDataAggregatorTransformerPtr aggregator);
  /// The path of the log of units; null for none.
  std::optional<std::string> logFilePath() const;
  /// Replaces the path for the next chain, without the check of the operation of the same name.
  void setLogFilePath(std::optional<std::string> path);
  /// The path of the log of raw chunks; null for none.
  std::optional<std::string> preAggregatorLogFilePath() const;
  /// Replaces the path for the next chain, likewise.
  void setPreAggregatorLogFilePath(std::optional<std::string> path);

  /// @}

 private:
  ZPKDataChannelPtr chainOn(ZPKDataChannelPtr channel, ZPKErrorPtr* error) const;

  const std::unique_ptr<ZPIStackChain> _chain;  // and the lock that each operation holds
  ZPKAtomic<ZPKMutableDataAggregatorTransformerPtr> _aggregator;
  ZPKAtomic<std::optional<std::string>> _logFilePath;
  ZPKAtomic<std::optional<std::string>> _preAggregatorLogFilePath;
};

/// A shared stack that records.
using ZPKCommLoggerStackPtr = std::shared_ptr<ZPKCommLoggerStack>;
