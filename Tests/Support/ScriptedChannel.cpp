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

void ScriptedChannel::setOnRead(std::function<void(double)> onRead) {
  const std::lock_guard guard(_mutex);
  _onRead = std::move(onRead);
}

void ScriptedChannel::setOpenResult(bool result, ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  _open = {result, std::move(error)};
}

void ScriptedChannel::setCloseResult(bool result, ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  _close = {result, std::move(error)};
}

void ScriptedChannel::setResetResult(bool result, ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  _reset = {result, std::move(error)};
}

void ScriptedChannel::setWriteResult(bool result, ZPKErrorPtr error) {
  const std::lock_guard guard(_mutex);
  _write = {result, std::move(error)};
}

std::vector<std::optional<std::string>> ScriptedChannel::writes() const {
  const std::lock_guard guard(_mutex);
  return _writes;
}

std::vector<double> ScriptedChannel::readTimeouts() const {
  const std::lock_guard guard(_mutex);
  return _readTimeouts;
}

std::vector<double> ScriptedChannel::openTimeouts() const {
  const std::lock_guard guard(_mutex);
  return _openTimeouts;
}

std::vector<std::string> ScriptedChannel::calls() const {
  const std::lock_guard guard(_mutex);
  return _calls;
}

bool ScriptedChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("open");
  _openTimeouts.push_back(timeout);
  if (_open.isGood) _opened = true;
  return finish(_open, error);
}

bool ScriptedChannel::close(ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("close");
  _opened = false;
  return finish(_close, error);
}

bool ScriptedChannel::reset(ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("reset");
  return finish(_reset, error);
}

ZPKDataPtr ScriptedChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  std::function<void(double)> onRead;
  {
    const std::lock_guard guard(_mutex);
    record("read");
    _readTimeouts.push_back(timeout);
    onRead = _onRead;
  }
  if (onRead) onRead(timeout);
  const std::lock_guard guard(_mutex);
  if (_reads.empty()) return ZPKData::data();
  const Read read = std::move(_reads.front());
  _reads.pop_front();
  if (read.closes) _opened = false;
  if (read.data == nullptr && error != nullptr) *error = read.error;
  return read.data;
}

bool ScriptedChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  const std::lock_guard guard(_mutex);
  record("write");
  _writes.push_back(data == nullptr ? std::nullopt
                                    : std::optional<std::string>(std::string(data->view())));
  return finish(_write, error);
}

bool ScriptedChannel::finish(const Result& result, ZPKErrorPtr* error) const {
  if (!result.isGood && error != nullptr) *error = result.error;
  return result.isGood;
}

void ScriptedChannel::record(const char* call) { _calls.emplace_back(call); }

}  // namespace support
