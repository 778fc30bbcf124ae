#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKNumber.h"

/// Records a device's console: a background thread reads all that comes, logs it and drops it.
/// Nothing is ever sent, and nothing can be read through the stack.
///
///     ZPKErrorPtr error;
///     auto recorder = ZPKCommLoggerStack::init();
///     recorder->setDelimiter("\n");
///     recorder->setLogFilePath("console.log", "console.raw.log", &error);
///     if (!recorder->createStackWithURL("uart:///dev/ttyUSB0", &error) ||
///         !recorder->open(&error)) return report(error);
///
/// The steps are those of ZPKCommStack: configure, create, open. From open to close the thread
/// reads and logs, unless a read of the transport fails: the device has gone then, logging stops,
/// and nothing tells but the log line of that read and isOpen, which turns to 0. close fails after
/// that with what the read reported, and the old chain keeps its log files open and what it holds
/// for want of a delimiter. The stack does not reconnect by itself: create it again, which drops
/// both, and open it. Opening the old chain is allowed too.
///
/// Errors are in the domain "zephal-commloggerchannel" unless told otherwise, or come up from the
/// chain in "zephal-communication". Test the result and not the slot. Timeouts are in seconds; null
/// stands for ZEPHAL_COMMUNICATION_TIME_FOREVER. Strings are UTF-8.
///
/// Threads: one recursive lock is held over the whole of every operation; the background thread
/// does not take it. The plain accessors at the end take no lock and are safe on any thread. An
/// open chain is closed when the stack is destroyed, and what a failed close says goes to the log.
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

  // --- Configure.

  /// The files that log the stream cut at the delimiter, one entry for each unit however many reads
  /// it took, and the raw chunks as they come. Null means none; with neither, everything is
  /// dropped. Fails with code 302 once a chain was created.
  bool setLogFilePath(std::optional<std::string_view> path,
                      std::optional<std::string_view> preAggregatorPath,
                      ZPKErrorPtr* error = nullptr);
  /// Where a unit ends; works on an open stack too and covers bytes that are held already. Null and
  /// "", the default, cut nothing. What is still held for want of a delimiter at close is in the
  /// raw log only. Always true.
  bool setDelimiter(std::optional<std::string_view> delimiter, ZPKErrorPtr* error = nullptr);

  // --- Create and open.

  /// Builds the chain on the base channel that the URL names, as createBaseChannelWithTransport
  /// does, whose factories' errors it passes on. Another scheme fails with code 300. On an open
  /// stack every URL fails with code 303.
  bool createStackWithURL(std::optional<std::string_view> url, ZPKErrorPtr* error = nullptr);
  /// Builds the chain on `channel`, which is shared with the caller. A chain that is closed is
  /// replaced; one that is open fails with code 303. Null fails without an error. On a channel that
  /// is open already the thread starts at once, and nothing is logged, since no open has run.
  bool createStackWithBaseChannel(const ZPKDataChannelPtr& channel, ZPKErrorPtr* error = nullptr);
  /// As openWithTimeout with null.
  bool open(ZPKErrorPtr* error = nullptr);
  /// Opens the chain and the logs. Fails with code 301 without a chain, with 303 if it is open, and
  /// with what the layers report. A connection that is refused gives no error: errno(3) says why
  /// straight after the call. Logs that were opened stay open then, and close fails with code 2 of
  /// "zephal-communication"; opening may be tried again at once.
  bool openWithTimeout(std::optional<ZPKNumber> timeout, ZPKErrorPtr* error = nullptr);
  /// 1 if the chain is open, otherwise 0. Never touches the slot.
  ZPKNumber isOpen(ZPKErrorPtr* error = nullptr) const;
  /// Stops the thread, closes the logs and the chain and, if that went well, resets it. When the
  /// device has gone it fails and closes nothing (see above). Without a chain it fails without an
  /// error.
  bool close(ZPKErrorPtr* error = nullptr);

  // --- Plain accessors. Each is safe on any thread and changes the field alone.

  /// The top of the chain; null as long as none was created.
  ZPKDataChannelPtr commChannel() const;
  void setCommChannel(ZPKDataChannelPtr channel);
  /// What cuts the stream; the chain holds the same object. A chain that is created without one
  /// records uncut, and its close, though it closes all, fails without an error.
  ZPKMutableDataAggregatorTransformerPtr aggregator() const;
  void setAggregator(ZPKMutableDataAggregatorTransformerPtr aggregator);
  /// The path of the log of units; null for none.
  std::optional<std::string> logFilePath() const;
  void setLogFilePath(std::optional<std::string> path);
  /// The path of the log of raw chunks; null for none.
  std::optional<std::string> preAggregatorLogFilePath() const;
  void setPreAggregatorLogFilePath(std::optional<std::string> path);

 private:
  ZPKDataChannelPtr chainOn(ZPKDataChannelPtr channel, ZPKErrorPtr* error) const;

  mutable std::recursive_mutex _lock;
  ZPKAtomic<ZPKDataChannelPtr> _commChannel;
  ZPKAtomic<ZPKMutableDataAggregatorTransformerPtr> _aggregator;
  ZPKAtomic<std::optional<std::string>> _logFilePath;
  ZPKAtomic<std::optional<std::string>> _preAggregatorLogFilePath;
};

using ZPKCommLoggerStackPtr = std::shared_ptr<ZPKCommLoggerStack>;
