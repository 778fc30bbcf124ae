#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Data Channel/ZPKDataChannel.h"

namespace support {

/// A channel without a device: it plays a list of read results and records the calls.
///
/// Reads play the script in order; when it is used up, a read immediately returns empty data.
/// Thread-safe.
class ScriptedChannel final : public ZPKDataChannel {
 public:
  static std::shared_ptr<ScriptedChannel> make() { return std::make_shared<ScriptedChannel>(); }

  // --- The script.
  void addRead(std::string_view bytes);
  void addRead(ZPKDataPtr data);
  /// A failed read; a null error stands for a clean close while reading. The channel stays open
  /// unless `closes`.
  void addFailedRead(ZPKErrorPtr error, bool closes = true);
  /// Called at the start of every read, with its timeout.
  void setOnRead(std::function<void(double timeout)> onRead);

  void setOpened(bool opened) { _opened = opened; }
  void setOpenResult(bool result, ZPKErrorPtr error = nullptr);
  void setCloseResult(bool result, ZPKErrorPtr error = nullptr);
  void setResetResult(bool result, ZPKErrorPtr error = nullptr);
  void setWriteResult(bool result, ZPKErrorPtr error = nullptr);

  // --- The record.
  /// The written bytes, one entry per write; null for null data.
  std::vector<std::optional<std::string>> writes() const;
  /// The timeouts of all reads.
  std::vector<double> readTimeouts() const;
  /// The names of all calls in order: "open", "close", "reset", "read", "write".
  std::vector<std::string> calls() const;
  std::vector<double> openTimeouts() const;

  bool openWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) override;
  bool close(ZPKErrorPtr* error = nullptr) override;
  bool reset(ZPKErrorPtr* error = nullptr) override;
  bool isOpened() const override { return _opened; }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr) override;

 private:
  struct Read {
    ZPKDataPtr data;
    ZPKErrorPtr error;
    bool closes = false;
  };
  struct Result {
    bool isGood = true;
    ZPKErrorPtr error;
  };

  bool finish(const Result& result, ZPKErrorPtr* error) const;
  void record(const char* call);

  std::atomic<bool> _opened{true};
  mutable std::mutex _mutex;
  std::deque<Read> _reads;
  std::function<void(double)> _onRead;
  Result _open, _close, _reset, _write;
  std::vector<std::optional<std::string>> _writes;
  std::vector<double> _readTimeouts;
  std::vector<double> _openTimeouts;
  std::vector<std::string> _calls;
};

}  // namespace support
