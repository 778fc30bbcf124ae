#include "Support/RecordingDelegate.h"

#include <algorithm>
#include <utility>

namespace support {

namespace {

std::string kindOf(const ZPKDataPtr& data) {
  if (data == nullptr) return "null";
  return data->length() == 0 ? "empty" : "bytes";
}

}  // namespace

bool RecordingDelegate::shouldDeserializeData(const ZPKDataChannelManagerPtr& /*manager*/,
                                              const ZPKDataChannelPtr& /*channel*/,
                                              const ZPKDataPtr& data) {
  if (!recordsReads) return true;
  record("should " + kindOf(data));
  return onShould ? onShould(data) : true;
}

void RecordingDelegate::didReceiveMessage(const ZPKDataChannelManagerPtr& manager,
                                          const ZPKDataChannelPtr& channel,
                                          const ZPKObjectPtr& message) {
  lastManager = manager.get();
  lastChannel = channel.get();
  record("message " + message->debugDescription());
  if (onMessage) onMessage();
}

void RecordingDelegate::didDisconnect(const ZPKDataChannelManagerPtr& manager,
                                      const ZPKDataChannelPtr& channel, const ZPKErrorPtr& error) {
  lastManager = manager.get();
  lastChannel = channel.get();
  record(std::string("disconnect ") + (error == nullptr ? "null" : "error") +
         (manager->started() ? " started" : " idle"));
  if (onDisconnect) onDisconnect();
}

std::vector<std::string> RecordingDelegate::events() const {
  const std::lock_guard guard(_mutex);
  return _events;
}

size_t RecordingDelegate::count(const std::string& event) const {
  const std::vector<std::string> all = events();
  return static_cast<size_t>(std::count(all.begin(), all.end(), event));
}

void RecordingDelegate::record(std::string event) {
  const std::lock_guard guard(_mutex);
  _events.push_back(std::move(event));
}

}  // namespace support
