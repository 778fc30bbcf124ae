#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "Data Channel Internal/ZPILogBatch.h"
#include "Data Channel Internal/ZPILogFileHandle.h"
#include "Utility/ZPISerialQueue.h"
#include "Utility/ZPIThreadSafety.h"
#include "Utility/ZPKReportFailure.h"

/// Writes the chunks of one logging channel to its file, in the order in which they were added. If
/// a log cannot be written, only openFile fails.
///
///     closed --openFile--> idle ----addChunk----> task queued --it runs--> writing
///       ^                   ^                          ^                     | |
///       |                   |                          '-chunks added since--' |
///       |                   '--------------------------none added--------------'
///       '--closeFile, from each of these, once everything pending is in the file
///
/// All file work is done in tasks of one serial queue. The first chunk after a pause is written
/// immediately. Chunks that are added during that write are pending, and the next task writes them
/// together. Each task writes one time only, so a thread that waits for the queue gets its turn
/// between two tasks, however busy the traffic is. While closed, tasks drop the chunks.
///
/// The queue has a thread while the file is open and writing is not synchronous: openFile and
/// setSynchronous start it, closeFile and the destructor end it, and addChunk does neither. An idle
/// thread sleeps and costs 8.5 KiB of resident memory. Its stack has the default size, since its
/// own log lines can run a host program's sink, and destroying a released channel can run a
/// caller's destructor. If the system cannot start the thread, addChunk writes the pending chunks
/// itself, as a synchronous writer does.
///
/// A queued task holds the owner weakly. So the task that runs while the owner is released may be
/// the one that destroys it, and the writer with it.
///
/// A writer belongs to the process that created it (see ZPILogWritersByProcess). Any thread may
/// call any operation except setOwner and abandon.
class ZPILogWriter final {
 public:
  explicit ZPILogWriter(std::string filePath);
  /// The writer of a forked child: it has the file, mode and owner of its parent's writer, but no
  /// thread and no chunks.
  explicit ZPILogWriter(ZPILogWriter* parents) ZPI_UNCHECKED;
  ZPILogWriter(const ZPILogWriter&) = delete;
  ZPILogWriter& operator=(const ZPILogWriter&) = delete;
  /// Writes the pending chunks. The file is closed with the last reference to its handle.
  ~ZPILogWriter();

  /// Sets the object that contains this writer; tasks need it to run. Call it before anything else.
  void setOwner(std::weak_ptr<void> owner) { _owner = std::move(owner); }

  /// Creates the file if there is none, and opens it; pending chunks go to the previous file. If
  /// the file cannot be created, it fails with a log line and no error; if it cannot be opened,
  /// with the system's error (domain "POSIX").
  bool openFile(const ZPIFailureSite& site, ZPKErrorPtr* error);
  /// Closes the file after writing everything added so far.
  void closeFile();

  /// Adds the chunk of `text` (see ZPIAppendLogChunk). A synchronous writer returns when the chunk
  /// is in the file.
  void addChunk(const ZPILogPrefix& prefix, std::string_view text);

  /// The open file; null while there is none.
  ZPILogFileHandlePtr fileHandle() const;
  void setFileHandle(ZPILogFileHandlePtr handle);
  bool isSynchronous() const { return _isSynchronous.load(); }
  void setSynchronous(bool isSynchronous);

  /// The process that this writer belongs to, and the writer of its parent process; null if none.
  pid_t process() const { return _process; }
  /// That process's part of a prefix. Valid as long as the writer.
  std::string_view processText() const { return _processText; }
  ZPILogWriter* parents() const { return _parents; }
  /// Releases file and owner, and touches nothing else. For a parent's writer in a child.
  void abandon() ZPI_UNCHECKED;

 private:
  void startThreadIfNeeded();
  bool addPendingChunk(const ZPILogPrefix& prefix, std::string_view text, bool wantsTask);
  void queueWriting();
  void writeQueuedChunks();
  void writePendingChunks();
  ZPILogFileHandlePtr takePendingChunks();

  const pid_t _process;
  const std::string _processText;
  ZPILogWriter* const _parents;
  const std::string _filePath;
  std::weak_ptr<void> _owner;
  std::atomic<bool> _isSynchronous{false};
  ZPISerialQueue _queue;

  mutable std::mutex _mutex;
  ZPILogFileHandlePtr _fileHandle ZPI_GUARDED_BY(_mutex);
  ZPILogBatch _pending ZPI_GUARDED_BY(_mutex);
  // A task is queued that will write the pending chunks.
  bool _isTaskQueued ZPI_GUARDED_BY(_mutex) = false;
  ZPILogBatch _beingWritten;  // used only by tasks of the queue, and by the destructor
};
