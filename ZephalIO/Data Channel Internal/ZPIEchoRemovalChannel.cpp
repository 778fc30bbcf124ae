#include "Data Channel Internal/ZPIEchoRemovalChannel.h"

#include <utility>

#include "Utility/ZPIRangeEnd.h"

namespace {

// Moves every complete line from the buffer to the queue. The buffer drops its front in constant
// time and remembers how far it was searched, so every byte is searched one time, however the lines
// arrive.
template <class Buffer, class Queue>
void splitByDelimiterPushDelimitedOnQueue(Buffer& buffer, Queue& queue, const ZPKData& delimiter) {
  for (ZPKRange found = buffer.resumeFind(delimiter); found.location != ZPKNotFound;
       found = buffer.resumeFind(delimiter)) {
    const size_t lineLength = ZPIRangeEnd(found);
    queue.emplace(buffer.view().substr(0, lineLength));
    buffer.dropFirst(lineLength);
  }
}

// Empties the buffer and frees its memory.
void clear(ZPKMutableData& buffer) { buffer.dropFirst(buffer.length()); }

void append(const std::string& line, ZPKMutableData* output) {
  output->append(line.data(), line.size());
}

}  // namespace

std::shared_ptr<ZPIEchoRemovalChannel> ZPIEchoRemovalChannel::initWithChannel(
    ZPKDataChannelPtr channel, const ZPKDataPtr& delimiter) {
  return std::make_shared<ZPIEchoRemovalChannel>(Key(), std::move(channel), delimiter);
}

ZPIEchoRemovalChannel::ZPIEchoRemovalChannel(Key, ZPKDataChannelPtr channel,
                                             const ZPKDataPtr& delimiter)
    : _channel(std::move(channel)), _delimiter(delimiter->copy()) {}

bool ZPIEchoRemovalChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel->openWithTimeout(timeout, error);
}

bool ZPIEchoRemovalChannel::close(ZPKErrorPtr* error) { return _channel->close(error); }

bool ZPIEchoRemovalChannel::reset(ZPKErrorPtr* error) {
  {
    const std::lock_guard guard(_readWriteMutex);
    clear(_readBuffer);
    _readQueue = {};
    clear(_writeBuffer);
    _writeQueue = {};
  }
  return _channel->reset(error);
}

bool ZPIEchoRemovalChannel::isOpened() const { return _channel->isOpened(); }

ZPKDataPtr ZPIEchoRemovalChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  const ZPKDataPtr data = _channel->readWithTimeout(timeout, error);
  if (data == nullptr) return nullptr;
  auto output = ZPKMutableData::data();
  const std::lock_guard guard(_readWriteMutex);
  _readBuffer.append(*data);
  splitByDelimiterPushDelimitedOnQueue(_readBuffer, _readQueue, *_delimiter);
  moveLinesWithoutEcho(output.get());
  return output;
}

bool ZPIEchoRemovalChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  if (!_channel->write(data, error)) return false;
  if (data == nullptr) return true;
  const std::lock_guard guard(_readWriteMutex);
  _writeBuffer.append(*data);
  splitByDelimiterPushDelimitedOnQueue(_writeBuffer, _writeQueue, *_delimiter);
  return true;
}

// Moves everything that was read to the output, except echoes and a tail that may begin an echo.
void ZPIEchoRemovalChannel::moveLinesWithoutEcho(ZPKMutableData* output) {
  while (!_writeQueue.empty()) {
    if (_readQueue.empty()) return;
    if (_readQueue.front() == _writeQueue.front()) {
      _writeQueue.pop();
    } else {
      append(_readQueue.front(), output);
    }
    _readQueue.pop();
  }
  for (; !_readQueue.empty(); _readQueue.pop()) append(_readQueue.front(), output);
  output->append(_readBuffer);
  clear(_readBuffer);
}
