#pragma once

#include <atomic>
#include <string>

#include "Data Channel Internal/ZPILogWriter.h"

/// The writers of one logging channel, one for each process that uses it: a forked child's first
/// call makes its own.
///
/// A fork(2) copies a writer as it is at that moment: with locks that other threads hold, and with
/// chunks that the parent will write. So a child takes over nothing of its parent's writer but the
/// file, and never destroys it, since threads seem to wait in it. It waits for no lock of its
/// parent's: its calls come back whatever other threads did at the fork, unless one was just
/// opening or closing this file. Parent and child share the file's lock, so between them only the
/// system's appending keeps chunks whole.
class ZPILogWritersByProcess final {
 public:
  explicit ZPILogWritersByProcess(std::string filePath);
  ZPILogWritersByProcess(const ZPILogWritersByProcess&) = delete;
  ZPILogWritersByProcess& operator=(const ZPILogWritersByProcess&) = delete;
  /// Destroys this process's writer, if there is one, and lets go of the file in those before it.
  ~ZPILogWritersByProcess();

  /// Safe on any thread. Valid as long as this object.
  ZPILogWriter& ofThisProcess() const;

 private:
  mutable std::atomic<ZPILogWriter*> _latest;  // this process's, or its parent's; never null
};
