#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

/// A log file that is open for appending. Owns its descriptor and closes it with the last
/// reference.
///
/// The file stays the one that was opened, also when it is renamed or removed meanwhile. append and
/// close must not run at the same time.
class ZPILogFileHandle final {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Opens an existing file, whose contents and permissions stay as they are. Null, with the reason
  /// in errno, if that fails; a FIFO that nobody reads is ENXIO (open(2)).
  static std::shared_ptr<ZPILogFileHandle> fileHandleForWritingAtPath(const std::string& path);

  /// Makes an empty file with the permissions 0666, less the process's umask; a file that another
  /// process made a moment ago keeps its contents. Returns whether that succeeded.
  static bool createFileAtPath(const std::string& path);

  ZPILogFileHandle(Key, std::string path, int descriptor);
  ZPILogFileHandle(const ZPILogFileHandle&) = delete;
  ZPILogFileHandle& operator=(const ZPILogFileHandle&) = delete;
  ~ZPILogFileHandle();

  /// Writes the chunks at the end of the file. Writers that take the same lock (flock(2)) do not
  /// break into each other's chunks. Waits for that lock for a second at most, for all chunks
  /// together; then it writes without the lock, and says so in a log line the first time. Once the
  /// lock has been free again, the next call waits for it again.
  ///
  /// No failure is reported. If a chunk does not fit, on a full disk for instance, the part that
  /// did fit stays, the remainder is dropped, and the next chunk is tried. No signal is raised
  /// (SIGXFSZ, SIGPIPE). Nothing is written once the handle is closed.
  void append(std::span<const std::string_view> chunks);

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
