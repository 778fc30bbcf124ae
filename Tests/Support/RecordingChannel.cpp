#include "Support/RecordingChannel.h"

#include <algorithm>
#include <utility>

namespace support {

void RecordingChannel::setOpenResult(bool result, ZPKErrorPtr error) {
  setResult(&_open, result, std::move(error));
}

void RecordingChannel::setCloseResult(bool result, ZPKErrorPtr error) {
  setResult(&_close, result, std::move(error));
}

void RecordingChannel::setResetResult(bool result, ZPKErrorPtr error) {
  setResult(&_reset, result, std::move(error));
}

void RecordingChannel::setWriteResult(bool result, ZPKErrorPtr error) {
  setResult(&_write, result, std::move(error));
}

void RecordingChannel::setOnRead(std::function<void(double)> onRead) {
  const std::lock_guard guard(_mutex);
  _onRead = std::move(onRead);
}

std::vector<std::optional<std::string>> RecordingChannel::writes() const {
  const std::lock_guard guard(_mutex);
  return _writes;
}

std::vector<double> RecordingChannel::openTimeouts() const {
  const std::lock_guard guard(_mutex);
  return _openTimeouts;
}

std::vector<double> RecordingChannel::readTimeouts() const {
  const std::lock_guard guard(_mutex);
  return _readTimeouts;
}

std::vector<std::string> RecordingChannel::calls() const {
  const std::lock_guard guard(_mutex);
  return _calls;
}

size_t RecordingChannel::count(const std::string& call) const {
  const std::lock_guard guard(_mutex);
  return static_cast<size_t>(std::count(_calls.begin(), _calls.end(), call));
}

bool RecordingChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  _calls.emplace_back("open");
  _openTimeouts.push_back(timeout);
  if (refusesOpening()) return finish({false, _open.error}, error);
  if (_open.isGood) _opened = true;
  return finish(_open, error);
}

bool RecordingChannel::close(ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  _calls.emplace_back("close");
  _opened = false;
  _changed.notify_all();
  return finish(_close, error);
}

bool RecordingChannel::reset(ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  _calls.emplace_back("reset");
  return finish(_reset, error);
}

ZPKDataPtr RecordingChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  std::function<void(double)> onRead;
  {
    const std::lock_guard guard(_mutex);
    recordRead(timeout);
    onRead = _onRead;
  }
  if (onRead) onRead(timeout);
  std::unique_lock lock(_mutex);
  const Read read = nextRead(lock, timeout);
  if (read.closes) _opened = false;
  if (read.data == nullptr && error != nullptr) *error = read.error;
  return read.data;
}

bool RecordingChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  _calls.emplace_back("write");
  _writes.push_back(data == nullptr ? std::nullopt
                                    : std::optional<std::string>(std::string(data->view())));
  return finish(_write, error);
}

void RecordingChannel::recordRead(double timeout) {
  _calls.emplace_back("read");
  _readTimeouts.push_back(timeout);
}

void RecordingChannel::setResult(Result* result, bool isGood, ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  *result = {isGood, std::move(error)};
}

bool RecordingChannel::finish(const Result& result, ZPKErrorPtr* error) {
  if (!result.isGood && error != nullptr) *error = result.error;
  return result.isGood;
}

}  // namespace support
