#include "Data Channel Internal/ZPILoggingChannel.h"

#include <utility>

#include "Data Channel Internal/ZPILogTime.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKDataConversionFunctions.h"

std::shared_ptr<ZPILoggingChannel> ZPILoggingChannel::initWithLogFilePath(
    std::string filePath, const std::string& identifier, ZPKDataChannelPtr channel) {
  auto logging = std::make_shared<ZPILoggingChannel>(Key(), std::move(filePath), identifier,
                                                     std::move(channel));
  logging->_writers.ofThisProcess().setOwner(logging);
  return logging;
}

ZPILoggingChannel::ZPILoggingChannel(Key, std::string filePath, const std::string& identifier,
                                     ZPKDataChannelPtr channel)
    : _channel(std::move(channel)),
      _identifierWrite(ZPKLoggingFormat("%@-write", identifier)),
      _identifierRead(ZPKLoggingFormat("%@--read", identifier)),
      _writers(std::move(filePath)) {}

bool ZPILoggingChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPILogWriter& writer = _writers.ofThisProcess();
  if (!writer.openFile({"-[ZPILoggingChannel openWithTimeout:error:]"}, error)) return false;
  return _channel->openWithTimeout(timeout, error);
}

bool ZPILoggingChannel::close(ZPKErrorPtr* error) {
  _writers.ofThisProcess().closeFile();
  return _channel->close(error);
}

bool ZPILoggingChannel::reset(ZPKErrorPtr* error) { return _channel->reset(error); }

bool ZPILoggingChannel::isOpened() const { return _channel.isOpened(); }

ZPKDataPtr ZPILoggingChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPKDataPtr data = _channel->readWithTimeout(timeout, error);
  logData(data, _identifierRead);
  return data;
}

bool ZPILoggingChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  logData(data, _identifierWrite);
  return _channel->write(data, error);
}

ZPKDataPtr ZPILoggingChannel::takeHeldUnit() {
  ZPKDataPtr unit = _channel.takeHeldUnit();
  logData(unit, _identifierRead);
  return unit;
}

void ZPILoggingChannel::logData(const ZPKDataPtr& data, std::string_view identifier) {
  if (data == nullptr || data->length() == 0) return;
  const ZPILogTime now;
  ZPILogWriter& writer = _writers.ofThisProcess();
  const ZPILogPrefix prefix{now.text(), identifier, writer.processText()};
  if (ZPIIsValidUTF8(data->view())) {
    writer.addChunk(prefix, data->view());
  } else {
    writer.addChunk(prefix, ZPKDataToString(data));
  }
}

ZPILogFileHandlePtr ZPILoggingChannel::fileHandle() const {
  return _writers.ofThisProcess().fileHandle();
}

void ZPILoggingChannel::setFileHandle(ZPILogFileHandlePtr handle) {
  _writers.ofThisProcess().setFileHandle(std::move(handle));
}

bool ZPILoggingChannel::synchronousLogging() const {
  return _writers.ofThisProcess().isSynchronous();
}

void ZPILoggingChannel::setSynchronousLogging(bool synchronous) {
  _writers.ofThisProcess().setSynchronous(synchronous);
}
