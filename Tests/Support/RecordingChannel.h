#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataChannel.h"

namespace support {

/// What the channels without a device have in common: the test says what each operation but a read
/// returns, and the channel records how it was called. Thread-safe; logs nothing.
class RecordingChannel : public ZPKDataChannel {
 public:
  // --- What happens.
  /// Changes what isOpened returns and nothing else: reads and writes still return what the test
  /// says.
  void setOpened(bool opened) { _opened = opened; }
  void setOpenResult(bool result, ZPKErrorPtr error = nullptr);
  void setCloseResult(bool result, ZPKErrorPtr error = nullptr);
  void setResetResult(bool result, ZPKErrorPtr error = nullptr);
  void setWriteResult(bool result, ZPKErrorPtr error = nullptr);
  /// Called on the reading thread at the start of every read, with its timeout.
  void setOnRead(std::function<void(double timeout)> onRead);

  // --- What was called.
  /// The written bytes, one entry per write; null for null data.
  std::vector<std::optional<std::string>> writes() const;
  std::vector<double> openTimeouts() const;
  std::vector<double> readTimeouts() const;
  /// The names of the calls in order: "open", "close", "reset", "read", "write".
  std::vector<std::string> calls() const;
  size_t count(const std::string& call) const;

  bool openWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) final;
  bool close(ZPKErrorPtr* error = nullptr) final;
  bool reset(ZPKErrorPtr* error = nullptr) final;
  bool isOpened() const final { return _opened; }
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) final;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr) final;

 protected:
  /// The outcome of a read.
  struct Read {
    ZPKDataPtr data;
    ZPKErrorPtr error;
    bool closes = false;
  };

  explicit RecordingChannel(bool isOpened) : _opened(isOpened) {}

  /// Whether an open fails in the present state, with the error that the test set for it.
  virtual bool refusesOpening() const { return false; }
  /// The outcome of the read that has just begun; `lock` holds the mutex.
  virtual Read nextRead(std::unique_lock<std::mutex>& lock, double timeout) = 0;
  /// Records a read, with the mutex held.
  virtual void recordRead(double timeout);

  // What all members below and those of the derived classes are guarded by.
  mutable std::mutex _mutex;
  // Notified when the channel closes.
  mutable std::condition_variable _changed;
  std::vector<double> _readTimeouts;
  std::vector<std::string> _calls;

 private:
  struct Result {
    bool isGood = true;
    ZPKErrorPtr error;
  };

  void setResult(Result* result, bool isGood, ZPKErrorPtr error);
  static bool finish(const Result& result, ZPKErrorPtr* error);

  std::atomic<bool> _opened;  // written with the mutex held, except by setOpened
  std::function<void(double)> _onRead;
  Result _open, _close, _reset, _write;
  std::vector<std::optional<std::string>> _writes;
  std::vector<double> _openTimeouts;
};

}  // namespace support
