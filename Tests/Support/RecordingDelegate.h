#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataChannelManager.h"

namespace support {

/// A manager's delegate that records its calls, and then does what a test asks for.
class RecordingDelegate final : public ZPKDataChannelManagerDelegate {
 public:
  static std::shared_ptr<RecordingDelegate> make() { return std::make_shared<RecordingDelegate>(); }

  bool shouldDeserializeData(const ZPKDataChannelManagerPtr& manager,
                             const ZPKDataChannelPtr& channel, const ZPKDataPtr& data) override;
  void didReceiveMessage(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                         const ZPKObjectPtr& message) override;
  void didDisconnect(const ZPKDataChannelManagerPtr& manager, const ZPKDataChannelPtr& channel,
                     const ZPKErrorPtr& error) override;

  /// "should ..." if reads are recorded, "message ..." and "disconnect ...", in the order of the
  /// calls.
  std::vector<std::string> events() const;
  size_t count(const std::string& event) const;

  // Set before the loop starts.
  bool recordsReads = false;
  std::function<bool(const ZPKDataPtr&)> onShould;
  std::function<void()> onMessage;
  std::function<void()> onDisconnect;

  std::atomic<const void*> lastManager{nullptr};
  std::atomic<const void*> lastChannel{nullptr};

 private:
  void record(std::string event);

  mutable std::mutex _mutex;
  std::vector<std::string> _events;
};

}  // namespace support
