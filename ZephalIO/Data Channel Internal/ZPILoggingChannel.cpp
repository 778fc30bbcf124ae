#include "Data Channel Internal/ZPILoggingChannel.h"

#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <new>
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

// No task holds the channel any more, so nobody else writes.
ZPILoggingChannel::~ZPILoggingChannel() { writePendingChunks(); }

bool ZPILoggingChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPILogFileHandlePtr handle;
  _logQueue.runAndWait([&] {
    writePendingChunks();  // they belong to the file before
    handle = openFile(error);
  });
  if (handle == nullptr) return false;
  setFileHandle(std::move(handle));
  startThreadIfNeeded();
  return _channel->openWithTimeout(timeout, error);
}

bool ZPILoggingChannel::close(ZPKErrorPtr* error) {
  _logQueue.runAndWait([this] {
    writePendingChunks();
    if (const ZPILogFileHandlePtr handle = fileHandle()) handle->close();
    setFileHandle(nullptr);
  });
  _logQueue.endThread();
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

void ZPILoggingChannel::setSynchronousLogging(bool synchronous) {
  _synchronousLogging.store(synchronous);
  startThreadIfNeeded();
}

// Without one, if the system has none to give, whoever brings a chunk writes it.
void ZPILoggingChannel::startThreadIfNeeded() {
  if (!synchronousLogging() && fileHandle() != nullptr) _logQueue.startThread();
}

void ZPILoggingChannel::logData(const ZPKDataPtr& data, std::string_view identifier) {
  if (data == nullptr || data->length() == 0) return;
  // Asked once: who adds the chunk that wants a task must queue it, whatever changes meanwhile.
  const bool isSynchronous = synchronousLogging();
  const bool needsTask =
      addPendingChunk(ZPILogChunk(ZPILogPrefix(identifier), data), !isSynchronous);
  if (isSynchronous) {
    _logQueue.runAndWait([this] { writePendingChunks(); });
  } else if (needsTask) {
    queueWriting();
  }
}

void ZPILoggingChannel::queueWriting() {
  _logQueue.queue([channel = weak_from_this()] {
    if (const auto strong = channel.lock()) strong->writeQueuedChunks();
  });
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

// Returns whether a task must be queued that writes this chunk.
bool ZPILoggingChannel::addPendingChunk(std::string_view chunk, bool wantsTask) {
  const std::lock_guard guard(_pendingMutex);
  _pending.add(chunk);
  return wantsTask && !std::exchange(_isTaskQueued, true);
}

// Runs on the queue.
void ZPILoggingChannel::writeQueuedChunks() {
  {
    const std::lock_guard guard(_pendingMutex);
    _isTaskQueued = false;
  }
  writePendingChunks();
}

// Runs on the queue, and once: what comes meanwhile is the next task's, so that whoever waits for
// the queue comes in between. While the traffic goes on two batches take turns; a pause gives their
// room back.
void ZPILoggingChannel::writePendingChunks() {
  {
    const std::lock_guard guard(_pendingMutex);
    std::swap(_written, _pending);
  }
  write(_written);
  _written.clear();
  const std::lock_guard guard(_pendingMutex);
  if (!_pending.isEmpty()) return;
  _written.release();
  _pending.release();
}

// Without a file the chunks are dropped, as they are without the memory to write them.
void ZPILoggingChannel::write(const ZPILogBatch& batch) {
  const ZPILogFileHandlePtr handle = fileHandle();
  if (handle == nullptr) return;
  try {
    handle->append(batch.chunks());
  } catch (const std::bad_alloc&) {
    return;
  }
}
