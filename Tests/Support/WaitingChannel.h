#pragma once

#include <condition_variable>
#include <cstddef>
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

/// A channel without a device that keeps its contract as a transport does: it is closed at first,
/// its read waits for bytes or for a failure, and a failed read closes it. For code that reads on a
/// thread of its own. Thread-safe; logs nothing.
class WaitingChannel final : public ZPKDataChannel {
 public:
  static std::shared_ptr<WaitingChannel> make() { return std::make_shared<WaitingChannel>(); }
  static std::shared_ptr<WaitingChannel> makeOpen();

  // --- What happens below.
  /// Bytes for one read.
  void deliver(std::string_view bytes);
  /// Makes a read return null and this error, which may be null; the channel closes itself or stays
  /// open.
  void fail(ZPKErrorPtr error, bool closes = true);
  /// Makes the first read after every open fail immediately.
  void failEveryRead(ZPKErrorPtr error);
  /// Forgets everything that no read has returned yet.
  void clearSteps();
  /// Runs on the reading thread at the start of each read.
  void setOnRead(std::function<void()> onRead);
  void setOpenResult(bool result, ZPKErrorPtr error = nullptr);
  void setCloseResult(bool result, ZPKErrorPtr error = nullptr);
  void setResetResult(bool result, ZPKErrorPtr error = nullptr);
  void setWriteResult(bool result, ZPKErrorPtr error = nullptr);

  // --- What was asked of it.
  size_t reads() const;
  /// The different timeouts of the reads.
  std::vector<double> readTimeouts() const;
  std::vector<double> openTimeouts() const;
  std::vector<std::optional<std::string>> writes() const;
  size_t count(const std::string& call) const;
  /// Whether a read waits here at this moment.
  bool isBeingRead() const;
  /// Waits until all that was delivered is read and the reader is back for more, so that it has
  /// passed everything on.
  bool waitUntilAllIsPassedOn() const;

  bool openWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) override;
  bool close(ZPKErrorPtr* error = nullptr) override;
  bool reset(ZPKErrorPtr* error = nullptr) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error = nullptr) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error = nullptr) override;

 private:
  struct Step {
    ZPKDataPtr data;
    ZPKErrorPtr error;
    bool closes = false;
  };
  struct Result {
    bool isGood = true;
    ZPKErrorPtr error;
  };

  void addStep(Step step);
  void setResult(Result* result, bool isGood, ZPKErrorPtr error);
  static bool finish(const Result& result, ZPKErrorPtr* error);
  void record(const char* call) { _calls.emplace_back(call); }

  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  // Everything below is guarded by the mutex.
  bool _opened = false;
  std::deque<Step> _steps;
  std::optional<Step> _everyRead;
  std::function<void()> _onRead;
  Result _open, _close, _reset, _write;
  size_t _reads = 0;
  bool _isBeingRead = false;
  std::vector<double> _readTimeouts;
  std::vector<double> _openTimeouts;
  std::vector<std::optional<std::string>> _writes;
  std::vector<std::string> _calls;  // all except the reads
};

}  // namespace support
