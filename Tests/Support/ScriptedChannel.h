#pragma once

#include <deque>
#include <memory>
#include <string_view>

#include "Support/RecordingChannel.h"

namespace support {

/// A channel without a device: it plays a list of read results and records the calls.
///
/// It is open at first. Reads play the script in order; when it is used up, a read immediately
/// returns empty data.
class ScriptedChannel final : public RecordingChannel {
 public:
  static std::shared_ptr<ScriptedChannel> make() { return std::make_shared<ScriptedChannel>(); }
  static std::shared_ptr<ScriptedChannel> makeClosed() {
    auto channel = make();
    channel->setOpened(false);
    return channel;
  }

  ScriptedChannel() : RecordingChannel(true) {}

  void addRead(std::string_view bytes);
  void addRead(ZPKDataPtr data);
  /// A failed read; a null error stands for a clean close while reading. The channel stays open
  /// unless `closes`.
  void addFailedRead(ZPKErrorPtr error, bool closes = true);

 private:
  Read nextRead(std::unique_lock<std::mutex>& lock, double timeout) override;

  std::deque<Read> _reads;
};

}  // namespace support
