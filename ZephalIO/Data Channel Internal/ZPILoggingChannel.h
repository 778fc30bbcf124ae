#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPIChannelBelow.h"
#include "Data Channel Internal/ZPILogWritersByProcess.h"
#include "Data Channel/ZPKDataChannel.h"

/// Wraps a channel and copies the traffic into a log file (see ZPILogChunk.h and ZPILogWriter.h).
/// Neither bytes nor results change, and if a log cannot be written, only the open fails.
///
/// The thread that reads or writes creates the chunks. A thread that lives while the file is open
/// writes them, unless logging is synchronous. The thread that destroys the channel writes the
/// pending chunks; it can be that same thread. A forked child has no such thread until it opens the
/// file again, and chunks that the parent has not written yet are left to the parent (see
/// ZPILogWritersByProcess.h).
class ZPILoggingChannel final : public ZPKDataChannel, public ZPIChannelAbilities {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPILoggingChannel> initWithLogFilePath(std::string filePath,
                                                                const std::string& identifier,
                                                                ZPKDataChannelPtr channel);

  ZPILoggingChannel(Key, std::string filePath, const std::string& identifier,
                    ZPKDataChannelPtr channel);

  /// Opens the file, then the channel below. If the file cannot be created, it fails with a log
  /// line and no error; if it cannot be opened, with the system's error (domain "POSIX"). The
  /// channel below then stays closed. If the channel below does not open, the file stays open, and
  /// a later open replaces it.
  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  /// Closes the file after writing everything logged so far, then closes the channel below.
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  const ZPKDataChannel* openSource() const override { return _channel.openSource(); }
  ZPKDataPtr takeHeldUnit() override;

  /// Adds a chunk to the file, if the file is open and there are any bytes.
  void logData(const ZPKDataPtr& data, std::string_view identifier);

  /// The open file; null while there is none. Safe on any thread.
  ZPILogFileHandlePtr fileHandle() const;
  void setFileHandle(ZPILogFileHandlePtr handle);
  /// Whether a read or write returns only after its chunk is in the file. Safe on any thread.
  bool synchronousLogging() const;
  void setSynchronousLogging(bool synchronous);

 private:
  const ZPIChannelBelow _channel;
  const std::string _identifierWrite;
  const std::string _identifierRead;
  const ZPILogWritersByProcess
      _writers;  // the last field, so that the log is finished before the rest is destroyed
};
