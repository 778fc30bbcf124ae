#include "Data Channel Internal/ZPILoggingChannel.h"

#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "Data Channel Internal/ZPILogChunk.h"
#include "Utility/ZPKReportFailure.h"

namespace {

bool fileExists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

std::shared_ptr<ZPILoggingChannel> ZPILoggingChannel::initWithLogFilePath(
    std::string filePath, const std::string& identifier, ZPKDataChannelPtr channel) {
  return std::make_shared<ZPILoggingChannel>(Key(), std::move(filePath), identifier,
                                             std::move(channel));
}

ZPILoggingChannel::ZPILoggingChannel(Key, std::string filePath, const std::string& identifier,
                                     ZPKDataChannelPtr channel)
    : _channel(std::move(channel)),
      _filePath(std::move(filePath)),
      _identifierWrite(ZPKLoggingFormat("%@-write", identifier)),
      _identifierRead(ZPKLoggingFormat("%@--read", identifier)),
      _logQueue(_filePath) {}

bool ZPILoggingChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPILogFileHandlePtr handle;
  _logQueue.runAndWait([&] { handle = openFile(error); });
  if (handle == nullptr) return false;
  setFileHandle(std::move(handle));
  return _channel->openWithTimeout(timeout, error);
}

bool ZPILoggingChannel::close(ZPKErrorPtr* error) {
  _logQueue.runAndWait([this] {
    writePendingChunks();
    if (const ZPILogFileHandlePtr handle = fileHandle()) handle->close();
    setFileHandle(nullptr);
  });
  return _channel->close(error);
}

bool ZPILoggingChannel::reset(ZPKErrorPtr* error) { return _channel->reset(error); }

bool ZPILoggingChannel::isOpened() const { return _channel->isOpened(); }

ZPKDataPtr ZPILoggingChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPKDataPtr data = _channel->readWithTimeout(timeout, error);
  logData(data, _identifierRead);
  return data;
}

bool ZPILoggingChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  logData(data, _identifierWrite);
  return _channel->write(data, error);
}

void ZPILoggingChannel::logData(const ZPKDataPtr& data, std::string_view identifier) {
  if (data == nullptr || data->length() == 0) return;
  const bool isFirst = addPendingChunk(ZPILogChunk(ZPILogPrefix(identifier), data));
  if (synchronousLogging()) {
    _logQueue.runAndWait([this] { writePendingChunks(); });
  } else if (isFirst) {
    _logQueue.queue([channel = weak_from_this()] {
      if (const auto strong = channel.lock()) strong->writePendingChunks();
    });
  }
}

// Runs on the queue.
ZPILogFileHandlePtr ZPILoggingChannel::openFile(ZPKErrorPtr* error) {
  if (!fileExists(_filePath)) {
    const int number = errno;
    const std::string text =
        ZPKLoggingFormat("unable to open file at path [%@] with error (%d): %s", _filePath, number,
                         ZPIErrorText(number));
    if (!ZPILogFileHandle::createFileAtPath(_filePath)) {
      ZPKLoggingLog(ZPKLogGetAnchor(), 0, "%@, unable to create file at path [%@]", text,
                    _filePath);
      return nullptr;
    }
  }
  ZPILogFileHandlePtr handle = ZPILogFileHandle::fileHandleForWritingAtPath(_filePath);
  const int number = errno;
  if (handle == nullptr && error != nullptr) {
    *error = ZPISystemError(number, {"-[ZPILoggingChannel openWithTimeout:error:]"});
  }
  return handle;
}

// Returns whether no other chunk was waiting, in which case a task is needed.
bool ZPILoggingChannel::addPendingChunk(std::string chunk) {
  const std::lock_guard guard(_pendingMutex);
  _pendingChunks.push_back(std::move(chunk));
  return _pendingChunks.size() == 1;
}

// Runs on the queue. Without a file the chunks are dropped.
void ZPILoggingChannel::writePendingChunks() {
  std::vector<std::string> chunks;
  {
    const std::lock_guard guard(_pendingMutex);
    chunks.swap(_pendingChunks);
  }
  if (const ZPILogFileHandlePtr handle = fileHandle()) handle->append(chunks);
}
