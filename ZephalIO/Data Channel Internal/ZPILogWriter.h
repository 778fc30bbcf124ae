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
#include "Utility/ZPKReportFailure.h"

/// Writes the chunks of one logging channel to its file, in the order in which they came. A log
/// that cannot be written fails nothing but openFile.
///
///     closed --openFile--> idle --a chunk comes--> task queued --it runs--> writing
///       ^                   ^                           ^                     | |
///       |                   |                           '--chunks came since--' |
///       |                   '------------------------none came------------------'
///       '--closeFile, from each of these, once everything pending is in the file
///
/// All file work is done in tasks of one serial queue. The first chunk after a pause is written at
/// once. Chunks that come during that write are pending, and the next task writes them together: a
/// task writes once, so that whoever waits for the queue gets its turn between two tasks, however
/// busy the traffic is. While closed, tasks drop the chunks.
///
/// The queue has its thread while the file is open and writing is not synchronous: openFile and
/// setSynchronous start it, closeFile and the destructor end it, and addChunk never does either.
/// Idle it sleeps, and costs 8.5 KiB of resident memory. Its stack is of the default size, since a
/// log line of its own can run a host program's sink, and the end of a dropped channel a caller's
/// destructor. If the system has no thread to give, whoever adds a chunk writes what is pending, as
/// a synchronous writer does.
///
/// A queued task holds the owner weakly. The task that runs while the owner is dropped can thus be
/// the one that destroys it, and the writer with it.
///
/// A writer belongs to the process that made it (see ZPILogWritersByProcess). Any thread may call
/// any operation, but setOwner and abandon.
class ZPILogWriter final {
 public:
  explicit ZPILogWriter(std::string filePath);
  /// The writer of a forked child: it has the file, mode and owner of its parent's writer, and
  /// neither thread nor chunks.
  explicit ZPILogWriter(ZPILogWriter* parents);
  ZPILogWriter(const ZPILogWriter&) = delete;
  ZPILogWriter& operator=(const ZPILogWriter&) = delete;
  /// Writes what is pending. The file is closed with the last reference to its handle.
  ~ZPILogWriter();

  /// The object that has this writer as a part of it; tasks need it to run. Call it before anything
  /// else.
  void setOwner(std::weak_ptr<void> owner) { _owner = std::move(owner); }

  /// Makes the file if there is none, and opens it; what was pending goes to the file before. A
  /// file that cannot be made is a log line and no error, one that cannot be opened the system's
  /// error.
  bool openFile(const ZPIFailureSite& site, ZPKErrorPtr* error);
  /// Closes the file, with everything added so far in it.
  void closeFile();

  /// Adds a chunk. A synchronous writer returns when it is in the file.
  void addChunk(std::string_view chunk);

  /// The open file, null while there is none.
  ZPILogFileHandlePtr fileHandle() const;
  void setFileHandle(ZPILogFileHandlePtr handle);
  bool isSynchronous() const { return _isSynchronous.load(); }
  void setSynchronous(bool isSynchronous);

  /// The process that this writer belongs to, and the writer of its parent, null if none.
  pid_t process() const { return _process; }
  ZPILogWriter* parents() const { return _parents; }
  /// Lets go of file and owner, and touches nothing else. For a parent's writer in a child.
  void abandon();

 private:
  void startThreadIfNeeded();
  bool addPendingChunk(std::string_view chunk, bool wantsTask);
  void queueWriting();
  void writeQueuedChunks();
  void writePendingChunks();
  ZPILogFileHandlePtr takePendingChunks();

  const pid_t _process;
  ZPILogWriter* const _parents;
  const std::string _filePath;
  std::weak_ptr<void> _owner;
  std::atomic<bool> _isSynchronous{false};
  ZPISerialQueue _queue;

  mutable std::mutex _mutex;  // guards the three fields below
  ZPILogFileHandlePtr _fileHandle;
  ZPILogBatch _pending;
  bool _isTaskQueued = false;  // the task that will write what is pending
  ZPILogBatch _beingWritten;   // belongs to what runs on the queue
};
