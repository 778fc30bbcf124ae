#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Data Channel Internal/ZPILogBatch.h"

/// A log file that is open for appending. Owns its file descriptor, which is closed with the last
/// reference.
///
/// The file stays the one that was opened, even if it is renamed or removed in the meantime. append
/// and close must not run at the same time.
class ZPILogFileHandle final {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Opens an existing file and keeps its contents and permissions. Null, with the reason in errno,
  /// if that fails; ENXIO for a FIFO that is not being read (open(2)).
  static std::shared_ptr<ZPILogFileHandle> fileHandleForWritingAtPath(const std::string& path);

  /// Creates an empty file with the permissions 0666, less the process's umask; a file that another
  /// process has just created keeps its contents. Returns whether that succeeded.
  static bool createFileAtPath(const std::string& path);

  ZPILogFileHandle(Key, std::string path, int descriptor);
  ZPILogFileHandle(const ZPILogFileHandle&) = delete;
  ZPILogFileHandle& operator=(const ZPILogFileHandle&) = delete;
  ~ZPILogFileHandle();

  /// Writes the chunks at the end of the file. Writers that take the same lock (flock(2)) do not
  /// break into each other's chunks. Waits for that lock for at most a second, for all chunks
  /// together; then it writes without the lock, and the first time says so in a log line. When the
  /// lock has been free again, the next call waits for it again.
  ///
  /// No failure is reported. If a chunk does not fit, on a full disk for instance, the part that
  /// fits stays, the rest is dropped, and the next chunk is tried. No signal is raised (SIGXFSZ,
  /// SIGPIPE). Nothing is written after close.
  void append(const ZPILogBatch& chunks);

  /// Closes the file; a second close does nothing.
  void close();

 private:
  bool lockBefore(std::chrono::steady_clock::time_point deadline);
  void logOnceThatLockIsTaken();

  const std::string _path;
  int _descriptor;            // -1 once closed
  bool _isLockTaken = false;  // by somebody who did not release it in time
  bool _hasLoggedThatLockIsTaken = false;
};

using ZPILogFileHandlePtr = std::shared_ptr<ZPILogFileHandle>;
