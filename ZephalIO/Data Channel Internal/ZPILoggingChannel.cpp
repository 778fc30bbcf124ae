#include "Data Channel Internal/ZPILoggingChannel.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <utility>

#include "Data Channel Internal/ZPILogChunk.h"
#include "Utility/ZPKReportFailure.h"

namespace {

// How long the first chunk after a pause waits for others, and how many bytes are enough of them.
constexpr std::chrono::milliseconds kGatheringTime{1};
constexpr size_t kFullBatch = 128 * 1024;

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
  hurry(true);
  _logQueue.runAndWait([this] {
    writePendingChunks();
    if (const ZPILogFileHandlePtr handle = fileHandle()) handle->close();
    setFileHandle(nullptr);
  });
  hurry(false);
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
  // Asked once: who adds the chunk to be gathered must queue the task, whatever changes meanwhile.
  const bool isSynchronous = synchronousLogging();
  const bool needsTask =
      addPendingChunk(ZPILogChunk(ZPILogPrefix(identifier), data), !isSynchronous);
  if (isSynchronous) {
    hurry(true);
    _logQueue.runAndWait([this] { writePendingChunks(); });
    hurry(false);
  } else if (needsTask) {
    queueWriting();
  }
}

void ZPILoggingChannel::queueWriting() {
  _logQueue.queue([channel = weak_from_this()] {
    if (const auto strong = channel.lock()) strong->writeBusyTraffic();
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

// Returns whether a task is needed that gathers this chunk and its followers.
bool ZPILoggingChannel::addPendingChunk(std::string_view chunk, bool isGathered) {
  const std::lock_guard guard(_pendingMutex);
  _pending.add(chunk);
  if (_pending.byteCount() - chunk.size() < kFullBatch && _pending.byteCount() >= kFullBatch) {
    _pendingChanged.notify_all();
  }
  return isGathered && !std::exchange(_isGathering, true);
}

// Runs on the queue. Two batches take turns for as long as the traffic goes on; nothing is kept
// when it pauses.
void ZPILoggingChannel::writeBusyTraffic() {
  ZPILogBatch batch;
  while (gather(batch)) {
    write(batch);
    if (isHurried()) return queueWriting();  // behind the one who waits
  }
}

// Waits a moment for more chunks to come and takes them all. False if there are none.
bool ZPILoggingChannel::gather(ZPILogBatch& batch) {
  batch.clear();
  std::unique_lock lock(_pendingMutex);
  _pendingChanged.wait_for(lock, kGatheringTime,
                           [this] { return _hurriedBy > 0 || _pending.byteCount() >= kFullBatch; });
  _isGathering = !_pending.isEmpty();
  if (!_isGathering) batch.release();
  std::swap(batch, _pending);
  return _isGathering;
}

// A caller that waits for the queue does not wait for chunks to gather.
void ZPILoggingChannel::hurry(bool isHurried) {
  const std::lock_guard guard(_pendingMutex);
  if (isHurried) {
    ++_hurriedBy;
    _pendingChanged.notify_all();
  } else {
    --_hurriedBy;
  }
}

bool ZPILoggingChannel::isHurried() {
  const std::lock_guard guard(_pendingMutex);
  return _hurriedBy > 0;
}

// Runs on the queue.
void ZPILoggingChannel::writePendingChunks() {
  ZPILogBatch batch;
  {
    const std::lock_guard guard(_pendingMutex);
    std::swap(batch, _pending);
  }
  write(batch);
}

// Without a file the chunks are dropped.
void ZPILoggingChannel::write(const ZPILogBatch& batch) {
  if (const ZPILogFileHandlePtr handle = fileHandle()) handle->append(batch.chunks());
}
