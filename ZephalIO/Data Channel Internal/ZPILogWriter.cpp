#include "Data Channel Internal/ZPILogWriter.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "Utility/ZPIProcessID.h"

namespace {

bool fileExists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

bool makeFileIfMissing(const std::string& path) {
  if (fileExists(path)) return true;
  const int number = errno;
  const std::string text = ZPKLoggingFormat("unable to open file at path [%@] with error (%d): %s",
                                            path, number, ZPIErrorText(number));
  if (ZPILogFileHandle::createFileAtPath(path)) return true;
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "%@, unable to create file at path [%@]", text, path);
  return false;
}

ZPILogFileHandlePtr openFileAtPath(const std::string& path, const ZPIFailureSite& site,
                                   ZPKErrorPtr* error) {
  if (!makeFileIfMissing(path)) return nullptr;
  ZPILogFileHandlePtr handle = ZPILogFileHandle::fileHandleForWritingAtPath(path);
  const int number = errno;
  if (handle == nullptr && error != nullptr) *error = ZPISystemError(number, site);
  return handle;
}

}  // namespace

ZPILogWriter::ZPILogWriter(std::string filePath)
    : _process(ZPIProcessID()),
      _processText(ZPILogProcess(_process)),
      _parents(nullptr),
      _filePath(std::move(filePath)),
      _queue(_filePath) {}

// Takes no lock of the parent's writer: after the fork there may be nobody left to release it.
ZPILogWriter::ZPILogWriter(ZPILogWriter* parents)
    : _process(ZPIProcessID()),
      _processText(ZPILogProcess(_process)),
      _parents(parents),
      _filePath(parents->_filePath),
      _owner(parents->_owner),
      _isSynchronous(parents->isSynchronous()),
      _queue(_filePath),
      _fileHandle(parents->_fileHandle) {}

// No task holds the owner any more, so no other thread writes.
ZPILogWriter::~ZPILogWriter() { writePendingChunks(); }

bool ZPILogWriter::openFile(const ZPIFailureSite& site, ZPKErrorPtr* error) {
  ZPILogFileHandlePtr handle;
  _queue.runAndWait([&] {
    writePendingChunks();
    handle = openFileAtPath(_filePath, site, error);
  });
  if (handle == nullptr) return false;
  setFileHandle(std::move(handle));
  startThreadIfNeeded();
  return true;
}

void ZPILogWriter::closeFile() {
  _queue.runAndWait([this] {
    writePendingChunks();
    ZPILogFileHandlePtr handle;
    {
      const std::lock_guard guard(_mutex);
      handle.swap(_fileHandle);
    }
    if (handle != nullptr) handle->close();
  });
  _queue.endThread();
}

void ZPILogWriter::addChunk(const ZPILogPrefix& prefix, std::string_view text) {
  // Read only one time: a thread that adds a chunk which needs a task must also queue that task,
  // even if the mode changes in between.
  const bool isSynchronous = this->isSynchronous();
  const bool needsTask = addPendingChunk(prefix, text, !isSynchronous);
  if (isSynchronous) {
    _queue.runAndWait([this] { writePendingChunks(); });
  } else if (needsTask) {
    queueWriting();
  }
}

ZPILogFileHandlePtr ZPILogWriter::fileHandle() const {
  const std::lock_guard guard(_mutex);
  return _fileHandle;
}

void ZPILogWriter::setFileHandle(ZPILogFileHandlePtr handle) {
  const std::lock_guard guard(_mutex);
  _fileHandle.swap(handle);
}

void ZPILogWriter::setSynchronous(bool isSynchronous) {
  _isSynchronous.store(isSynchronous);
  startThreadIfNeeded();
}

void ZPILogWriter::abandon() {
  _fileHandle = nullptr;
  _owner.reset();
}

// If the system cannot start the thread, addChunk writes on its caller's thread.
void ZPILogWriter::startThreadIfNeeded() {
  if (!isSynchronous() && fileHandle() != nullptr) _queue.startThread();
}

// Returns whether a task must be queued that writes this chunk.
bool ZPILogWriter::addPendingChunk(const ZPILogPrefix& prefix, std::string_view text,
                                   bool wantsTask) {
  const std::lock_guard guard(_mutex);
  _pending.add(prefix, text);
  return wantsTask && !std::exchange(_isTaskQueued, true);
}

void ZPILogWriter::queueWriting() {
  try {
    _queue.queue([this, owner = _owner] {
      if (const auto strong = owner.lock()) writeQueuedChunks();
    });
  } catch (const std::bad_alloc&) {
    const std::lock_guard guard(_mutex);
    _isTaskQueued = false;  // the next chunk tries again, and this one waits for it
  }
}

// Runs on the queue.
void ZPILogWriter::writeQueuedChunks() {
  {
    const std::lock_guard guard(_mutex);
    _isTaskQueued = false;
  }
  writePendingChunks();
}

// Runs on the queue, or in the destructor. During traffic two batches take turns; in a pause their
// memory is freed.
void ZPILogWriter::writePendingChunks() {
  const ZPILogFileHandlePtr handle = takePendingChunks();
  if (handle != nullptr) handle->append(_beingWritten);
  _beingWritten.clear();
  const std::lock_guard guard(_mutex);
  if (!_pending.isEmpty()) return;
  _beingWritten.clearAndFree();
  _pending.clearAndFree();
}

// Makes the pending chunks the batch that is being written, and returns its file.
ZPILogFileHandlePtr ZPILogWriter::takePendingChunks() {
  const std::lock_guard guard(_mutex);
  _beingWritten.swap(_pending);
  return _fileHandle;
}
