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
  /// process made a moment ago keeps its contents. Whether that went well.
  static bool createFileAtPath(const std::string& path);

  ZPILogFileHandle(Key, std::string path, int descriptor);
  ZPILogFileHandle(const ZPILogFileHandle&) = delete;
  ZPILogFileHandle& operator=(const ZPILogFileHandle&) = delete;
  ~ZPILogFileHandle();

  /// Writes the chunks at the end of the file, each unbroken by what others write who take the same
  /// lock (flock(2)). Waits for that lock for a second at most, all chunks together; then it writes
  /// without, and the first time says so in a log line. It waits again once the lock was free.
  ///
  /// No failure is reported: of a chunk that the file does not take, on a full disk for instance,
  /// the part that did fit stays, the rest is dropped, and the next chunk is tried again. No signal
  /// comes of that (SIGXFSZ, SIGPIPE). Nothing is written once the handle is closed.
  void append(std::span<const std::string_view> chunks);

  /// Closes the file; a second close does nothing.
  void close();

 private:
  bool lock(std::chrono::steady_clock::time_point deadline);
  void tellOfTakenLock();

  const std::string _path;
  int _descriptor;            // -1 once closed
  bool _isLockTaken = false;  // by somebody who did not let go in time
  bool _hasToldOfTakenLock = false;
};

using ZPILogFileHandlePtr = std::shared_ptr<ZPILogFileHandle>;
