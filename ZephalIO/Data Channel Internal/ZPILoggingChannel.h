#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPILogFileHandle.h"
#include "Data Channel/ZPKDataChannel.h"

/// Wraps a channel and copies what passes into a log file (see ZPILogChunk.h). Neither bytes nor
/// results change, and a log that cannot be written fails nothing but the open.
///
/// All file work is done in tasks of one serial queue; chunks are made on the thread of the
/// traffic. The first chunk after a pause goes out at once; what comes while it is written goes out
/// together. A queued task holds the channel weakly, so that the task that runs while the channel
/// is dropped can be the one to destroy it; whoever destroys it writes what is pending.
///
/// The queue has its thread while the file is open and logging is not synchronous: open and
/// setSynchronousLogging start it, close and the destructor end it, and a read or write never does
/// either. Idle it sleeps, and costs 8.5 KiB of resident memory. Its stack is of the default size,
/// since a log line of its own can run a host program's sink, and the end of a dropped channel a
/// caller's destructor. If the system has no thread to give, whoever brings a chunk writes what is
/// pending, as in a synchronous call.
///
/// After a fork(2) the child has no such thread until it opens the file anew, and what the parent
/// has not written yet stays the parent's. A child waits for no lock of its parent's, so that its
/// calls come back whatever other threads did at the fork, but for one that was just opening or
/// closing this file. The two share the file's lock: between them only the system's appending keeps
/// chunks whole.
class ZPILoggingChannel final : public ZPKDataChannel,
                                public std::enable_shared_from_this<ZPILoggingChannel> {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPILoggingChannel> initWithLogFilePath(std::string filePath,
                                                                const std::string& identifier,
                                                                ZPKDataChannelPtr channel);

  ZPILoggingChannel(Key, std::string filePath, const std::string& identifier,
                    ZPKDataChannelPtr channel);
  ZPILoggingChannel(const ZPILoggingChannel&) = delete;
  ZPILoggingChannel& operator=(const ZPILoggingChannel&) = delete;
  /// Writes what is pending. The file is closed with the last reference to its handle.
  ~ZPILoggingChannel() override;

  /// Opens the file, then the channel below. A file that cannot be made is a log line and no error,
  /// one that cannot be opened the system's error; the channel below stays closed. The file stays
  /// open if the channel below does not open, and a later open replaces it.
  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  /// Closes the file, with everything logged so far in it, then the channel below.
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  /// Adds a chunk to the file, if the file is open and there are any bytes.
  void logData(const ZPKDataPtr& data, std::string_view identifier);

  /// The open file, null while there is none. Safe on any thread.
  ZPILogFileHandlePtr fileHandle() const;
  void setFileHandle(ZPILogFileHandlePtr handle);
  /// Whether a read or write returns only after its chunk is in the file. Safe on any thread.
  bool synchronousLogging() const { return _synchronousLogging.load(); }
  void setSynchronousLogging(bool synchronous);

 private:
  struct Log;

  Log& log() const;
  ZPILogFileHandlePtr openFile(ZPKErrorPtr* error);
  void startThreadIfNeeded();
  void queueWriting(Log& log);

  const ZPKDataChannelPtr _channel;
  const std::string _filePath;
  const std::string _identifierWrite;
  const std::string _identifierRead;
  std::atomic<bool> _synchronousLogging{false};
  mutable std::atomic<Log*> _log;  // this process's, or its parent's; never null
};
