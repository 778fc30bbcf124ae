#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>

#include "Support/RecordingChannel.h"

namespace support {

/// A channel without a device that keeps its contract as a transport does: it is closed at first,
/// an open channel cannot be opened, its read waits for bytes or for a failure, and a failed read
/// closes it. For code that reads on a thread of its own. Of the reads it records the number and
/// the different timeouts only, since such code reads over and over.
class WaitingChannel final : public RecordingChannel {
 public:
  static std::shared_ptr<WaitingChannel> make() { return std::make_shared<WaitingChannel>(); }
  static std::shared_ptr<WaitingChannel> makeOpen();

  WaitingChannel() : RecordingChannel(false) {}

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

  // --- What was asked of it.
  size_t reads() const;
  /// Whether a read waits here at this moment.
  bool isBeingRead() const;
  /// Waits until all that was delivered is read and the reader is back for more, so that it has
  /// passed everything on.
  bool waitUntilAllIsPassedOn() const;

 private:
  bool refusesOpening() const override { return isOpened(); }
  Read nextRead(std::unique_lock<std::mutex>& lock, double timeout) override;
  void recordRead(double timeout) override;
  void addStep(Read step);

  std::deque<Read> _steps;
  std::optional<Read> _everyRead;
  size_t _reads = 0;
  bool _isBeingRead = false;
};

}  // namespace support
