#include "Support/WaitingChannel.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Support/EventWait.h"
#include "Support/TestClock.h"

namespace support {

std::shared_ptr<WaitingChannel> WaitingChannel::makeOpen() {
  auto channel = make();
  channel->_opened = true;
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
  _everyRead = Step{nullptr, std::move(error), true};
}

void WaitingChannel::clearSteps() {
  const std::lock_guard guard(_mutex);
  _steps.clear();
}

void WaitingChannel::setOnRead(std::function<void()> onRead) {
  const std::lock_guard guard(_mutex);
  _onRead = std::move(onRead);
}

void WaitingChannel::setOpenResult(bool result, ZPKErrorPtr error) {
  setResult(&_open, result, std::move(error));
}

void WaitingChannel::setCloseResult(bool result, ZPKErrorPtr error) {
  setResult(&_close, result, std::move(error));
}

void WaitingChannel::setResetResult(bool result, ZPKErrorPtr error) {
  setResult(&_reset, result, std::move(error));
}

void WaitingChannel::setWriteResult(bool result, ZPKErrorPtr error) {
  setResult(&_write, result, std::move(error));
}

size_t WaitingChannel::reads() const {
  const std::lock_guard guard(_mutex);
  return _reads;
}

std::vector<double> WaitingChannel::readTimeouts() const {
  const std::lock_guard guard(_mutex);
  return _readTimeouts;
}

std::vector<double> WaitingChannel::openTimeouts() const {
  const std::lock_guard guard(_mutex);
  return _openTimeouts;
}

std::vector<std::optional<std::string>> WaitingChannel::writes() const {
  const std::lock_guard guard(_mutex);
  return _writes;
}

size_t WaitingChannel::count(const std::string& call) const {
  const std::lock_guard guard(_mutex);
  return static_cast<size_t>(std::count(_calls.begin(), _calls.end(), call));
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

bool WaitingChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("open");
  _openTimeouts.push_back(timeout);
  if (_opened) return finish({false, _open.error}, error);
  if (_open.isGood) _opened = true;
  return finish(_open, error);
}

bool WaitingChannel::close(ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("close");
  _opened = false;
  _changed.notify_all();
  return finish(_close, error);
}

bool WaitingChannel::reset(ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("reset");
  return finish(_reset, error);
}

bool WaitingChannel::isOpened() const {
  const std::lock_guard guard(_mutex);
  return _opened;
}

ZPKDataPtr WaitingChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  std::function<void()> onRead;
  {
    const std::lock_guard guard(_mutex);
    ++_reads;
    const bool isKnown =
        std::find(_readTimeouts.begin(), _readTimeouts.end(), timeout) != _readTimeouts.end();
    if (!isKnown) _readTimeouts.push_back(timeout);
    onRead = _onRead;
  }
  if (onRead) onRead();
  std::unique_lock lock(_mutex);
  _isBeingRead = true;
  _changed.notify_all();
  const auto deadline = std::chrono::system_clock::now() +
                        std::chrono::duration_cast<std::chrono::system_clock::duration>(
                            std::chrono::duration<double>(timeout));
  _changed.wait_until(lock, deadline,
                      [this] { return !_steps.empty() || _everyRead.has_value() || !_opened; });
  _isBeingRead = false;
  Step step{ZPKData::data(), nullptr, false};
  if (_everyRead.has_value()) {
    step = *_everyRead;
  } else if (!_steps.empty()) {
    step = std::move(_steps.front());
    _steps.pop_front();
  } else if (!_opened) {
    step = {nullptr, ZPKError::init("waiting channel", 2, {}), false};
  }
  if (step.closes) _opened = false;
  if (step.data == nullptr && error != nullptr) *error = step.error;
  return step.data;
}

bool WaitingChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("write");
  _writes.push_back(data == nullptr ? std::nullopt
                                    : std::optional<std::string>(std::string(data->view())));
  return finish(_write, error);
}

void WaitingChannel::addStep(Step step) {
  const std::lock_guard guard(_mutex);
  _steps.push_back(std::move(step));
  _changed.notify_all();
}

void WaitingChannel::setResult(Result* result, bool isGood, ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  *result = {isGood, std::move(error)};
}

bool WaitingChannel::finish(const Result& result, ZPKErrorPtr* error) {
  if (!result.isGood && error != nullptr) *error = result.error;
  return result.isGood;
}

}  // namespace support
