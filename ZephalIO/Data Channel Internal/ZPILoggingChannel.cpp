#include "Data Channel Internal/ZPILoggingChannel.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <utility>

#include "Data Channel Internal/ZPILogBatch.h"
#include "Data Channel Internal/ZPILogChunk.h"
#include "Utility/ZPISerialQueue.h"
#include "Utility/ZPKReportFailure.h"

namespace {

bool fileExists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

}  // namespace

// What a channel has in one process. A fork copies it as it is at that moment: with locks that
// other threads hold, and with chunks that the parent will write. So a child touches nothing of its
// parent's but the file, and never destroys it, since threads seem to wait in it.
struct ZPILoggingChannel::Log {
  Log(const std::string& label, Log* ofParent) : parents(ofParent), logQueue(label) {
    if (parents != nullptr) fileHandle = parents->fileHandle;
  }

  bool addPendingChunk(std::string_view chunk, bool wantsTask);
  void writeQueuedChunks();
  void writePendingChunks();
  void closeFile();

  const pid_t process = ::getpid();
  Log* const parents;  // null in the process that made the channel
  ZPISerialQueue logQueue;

  // The chunks that wait for the file. The first one queues a task, which takes all that came until
  // it runs: busy traffic is written in a few calls, and wakes nobody for each chunk.
  std::mutex mutex;  // guards the three fields below
  ZPILogFileHandlePtr fileHandle;
  ZPILogBatch pending;
  bool isTaskQueued = false;
  ZPILogBatch written;  // belongs to what runs on the queue
};

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
      _log(new Log(_filePath, nullptr)) {}

ZPILoggingChannel::~ZPILoggingChannel() {
  Log* log = _log.load();
  if (log->process == ::getpid()) {
    log->writePendingChunks();  // no task holds the channel any more, so nobody else writes
    delete std::exchange(log, log->parents);
  }
  for (; log != nullptr; log = log->parents) log->fileHandle = nullptr;
}

// The log of this process. A child's first call makes it; of two that do, one prevails.
ZPILoggingChannel::Log& ZPILoggingChannel::log() const {
  Log* log = _log.load(std::memory_order_acquire);
  if (log->process == ::getpid()) return *log;
  auto own = std::make_unique<Log>(_filePath, log);
  if (_log.compare_exchange_strong(log, own.get())) return *own.release();
  return *log;
}

bool ZPILoggingChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  ZPILogFileHandlePtr handle;
  Log& log = this->log();
  log.logQueue.runAndWait([&] {
    log.writePendingChunks();  // they belong to the file before
    handle = openFile(error);
  });
  if (handle == nullptr) return false;
  setFileHandle(std::move(handle));
  startThreadIfNeeded();
  return _channel->openWithTimeout(timeout, error);
}

bool ZPILoggingChannel::close(ZPKErrorPtr* error) {
  Log& log = this->log();
  log.logQueue.runAndWait([&log] { log.closeFile(); });
  log.logQueue.endThread();
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

ZPILogFileHandlePtr ZPILoggingChannel::fileHandle() const {
  Log& log = this->log();
  const std::lock_guard guard(log.mutex);
  return log.fileHandle;
}

void ZPILoggingChannel::setFileHandle(ZPILogFileHandlePtr handle) {
  Log& log = this->log();
  const std::lock_guard guard(log.mutex);
  log.fileHandle.swap(handle);
}

void ZPILoggingChannel::setSynchronousLogging(bool synchronous) {
  _synchronousLogging.store(synchronous);
  startThreadIfNeeded();
}

// Without one, if the system has none to give, whoever brings a chunk writes it.
void ZPILoggingChannel::startThreadIfNeeded() {
  if (!synchronousLogging() && fileHandle() != nullptr) log().logQueue.startThread();
}

void ZPILoggingChannel::logData(const ZPKDataPtr& data, std::string_view identifier) {
  if (data == nullptr || data->length() == 0) return;
  // Asked once: who adds the chunk that wants a task must queue it, whatever changes meanwhile.
  const bool isSynchronous = synchronousLogging();
  Log& log = this->log();
  const std::string chunk = ZPILogChunk(ZPILogPrefix(identifier, log.process), data);
  const bool needsTask = log.addPendingChunk(chunk, !isSynchronous);
  if (isSynchronous) {
    log.logQueue.runAndWait([&log] { log.writePendingChunks(); });
  } else if (needsTask) {
    queueWriting(log);
  }
}

void ZPILoggingChannel::queueWriting(Log& log) {
  log.logQueue.queue([&log, channel = weak_from_this()] {
    if (const auto strong = channel.lock()) log.writeQueuedChunks();
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
bool ZPILoggingChannel::Log::addPendingChunk(std::string_view chunk, bool wantsTask) {
  const std::lock_guard guard(mutex);
  pending.add(chunk);
  return wantsTask && !std::exchange(isTaskQueued, true);
}

// Runs on the queue.
void ZPILoggingChannel::Log::writeQueuedChunks() {
  {
    const std::lock_guard guard(mutex);
    isTaskQueued = false;
  }
  writePendingChunks();
}

// Runs on the queue, or at the end. Writes once: what comes meanwhile is the next task's, so that
// whoever waits for the queue comes in between. Without a file the chunks are dropped, as they are
// without the memory to write them. While the traffic goes on two batches take turns; a pause gives
// their room back.
void ZPILoggingChannel::Log::writePendingChunks() {
  ZPILogFileHandlePtr handle;
  {
    const std::lock_guard guard(mutex);
    std::swap(written, pending);
    handle = fileHandle;
  }
  try {
    if (handle != nullptr) handle->append(written.chunks());
  } catch (const std::bad_alloc&) {
    handle = nullptr;
  }
  written.clear();
  const std::lock_guard guard(mutex);
  if (!pending.isEmpty()) return;
  written.release();
  pending.release();
}

// Runs on the queue.
void ZPILoggingChannel::Log::closeFile() {
  writePendingChunks();
  ZPILogFileHandlePtr handle;
  {
    const std::lock_guard guard(mutex);
    handle.swap(fileHandle);
  }
  if (handle != nullptr) handle->close();
}
