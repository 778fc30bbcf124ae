#pragma once

#include <atomic>
#include <string>

#include "Data Channel Internal/ZPILogWriter.h"

/// The writers of one logging channel, one for each process that uses it: the first call in a
/// forked child creates the child's own.
///
/// fork(2) copies a writer in the state of that moment: with locks that other threads hold, and
/// with chunks that the parent will write. So a child takes over only the file of its parent's
/// writer, and never destroys that writer, since it looks as if threads were waiting in it. The
/// child waits for no lock of its parent: its calls return whatever other threads did at the fork,
/// unless one was just opening or closing this file. Parent and child share the file's lock, so
/// between the two only O_APPEND keeps chunks whole.
class ZPILogWritersByProcess final {
 public:
  explicit ZPILogWritersByProcess(std::string filePath);
  ZPILogWritersByProcess(const ZPILogWritersByProcess&) = delete;
  ZPILogWritersByProcess& operator=(const ZPILogWritersByProcess&) = delete;
  /// Destroys this process's writer, if there is one, and releases the file in those before it.
  ~ZPILogWritersByProcess();

  /// This process's writer, created if there is none. Safe on any thread. Valid as long as this
  /// object.
  ZPILogWriter& ofThisProcess() const;

 private:
  mutable std::atomic<ZPILogWriter*> _latest;  // this process's, or its parent's; never null
};
