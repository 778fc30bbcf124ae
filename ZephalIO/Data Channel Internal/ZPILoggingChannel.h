#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPILogWritersByProcess.h"
#include "Data Channel/ZPKDataChannel.h"

/// Wraps a channel and copies what passes into a log file (see ZPILogChunk.h and ZPILogWriter.h).
/// Neither bytes nor results change, and a log that cannot be written fails nothing but the open.
///
/// Chunks are made on the thread of the traffic, and written on a thread that lives while the file
/// is open, unless logging is synchronous. Whoever destroys the channel writes what is pending,
/// which can be that thread. A forked child has no such thread until it opens the file anew, and
/// what the parent has not written yet stays the parent's (see ZPILogWritersByProcess.h).
class ZPILoggingChannel final : public ZPKDataChannel {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPILoggingChannel> initWithLogFilePath(std::string filePath,
                                                                const std::string& identifier,
                                                                ZPKDataChannelPtr channel);

  ZPILoggingChannel(Key, std::string filePath, const std::string& identifier,
                    ZPKDataChannelPtr channel);

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
  bool synchronousLogging() const;
  void setSynchronousLogging(bool synchronous);

 private:
  const ZPKDataChannelPtr _channel;
  const std::string _identifierWrite;
  const std::string _identifierRead;
  const ZPILogWritersByProcess
      _writers;  // the last field: the end of a channel begins with its log
};
