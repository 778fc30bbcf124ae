#include "Support/ScriptedChannel.h"

#include <utility>

namespace support {

void ScriptedChannel::addRead(std::string_view bytes) { addRead(ZPKData::dataWithString(bytes)); }

void ScriptedChannel::addRead(ZPKDataPtr data) {
  const std::lock_guard guard(_mutex);
  _reads.push_back({std::move(data), nullptr, false});
}

void ScriptedChannel::addFailedRead(ZPKErrorPtr error, bool closes) {
  const std::lock_guard guard(_mutex);
  _reads.push_back({nullptr, std::move(error), closes});
}

RecordingChannel::Read ScriptedChannel::nextRead(std::unique_lock<std::mutex>& /*lock*/,
                                                 double /*timeout*/) {
  if (_reads.empty()) return {ZPKData::data(), nullptr, false};
  Read read = std::move(_reads.front());
  _reads.pop_front();
  return read;
}

}  // namespace support
