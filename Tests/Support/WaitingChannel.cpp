#include "Support/WaitingChannel.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Support/EventWait.h"
#include "Support/TestClock.h"

namespace support {

std::shared_ptr<WaitingChannel> WaitingChannel::makeOpen() {
  auto channel = make();
  channel->setOpened(true);
  return channel;
}

void WaitingChannel::deliver(std::string_view bytes) {
  addStep({ZPKData::dataWithString(bytes), nullptr, false});
}

void WaitingChannel::fail(ZPKErrorPtr error, bool closes) {
  addStep({nullptr, std::move(error), closes});
}

void WaitingChannel::failEveryRead(ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  _everyRead = Read{nullptr, std::move(error), true};
}

void WaitingChannel::clearSteps() {
  const std::lock_guard guard(_mutex);
  _steps.clear();
}

size_t WaitingChannel::reads() const {
  const std::lock_guard guard(_mutex);
  return _reads;
}

bool WaitingChannel::isBeingRead() const {
  const std::lock_guard guard(_mutex);
  return _isBeingRead;
}

bool WaitingChannel::waitUntilAllIsPassedOn() const {
  const RealTime realTime;
  std::unique_lock lock(_mutex);
  return _changed.wait_until(lock, std::chrono::system_clock::now() + kPatience,
                             [this] { return _steps.empty() && _isBeingRead; });
}

RecordingChannel::Read WaitingChannel::nextRead(std::unique_lock<std::mutex>& lock,
                                                double timeout) {
  _isBeingRead = true;
  _changed.notify_all();
  const auto deadline = std::chrono::system_clock::now() +
                        std::chrono::duration_cast<std::chrono::system_clock::duration>(
                            std::chrono::duration<double>(timeout));
  _changed.wait_until(lock, deadline,
                      [this] { return !_steps.empty() || _everyRead.has_value() || !isOpened(); });
  _isBeingRead = false;
  if (_everyRead.has_value()) return *_everyRead;
  if (!_steps.empty()) {
    Read step = std::move(_steps.front());
    _steps.pop_front();
    return step;
  }
  if (!isOpened()) return {nullptr, ZPKError::init("waiting channel", 2, {}), false};
  return {ZPKData::data(), nullptr, false};
}

void WaitingChannel::recordRead(double timeout) {
  ++_reads;
  const bool isKnown =
      std::find(_readTimeouts.begin(), _readTimeouts.end(), timeout) != _readTimeouts.end();
  if (!isKnown) _readTimeouts.push_back(timeout);
}

void WaitingChannel::addStep(Read step) {
  const std::lock_guard guard(_mutex);
  _steps.push_back(std::move(step));
  _changed.notify_all();
}

}  // namespace support
