#pragma once

#include <memory>
#include <mutex>
#include <queue>
#include <string>

#include "Data Channel/ZPKDataChannel.h"
#include "Utility/ZPIThreadSafety.h"
#include "Utility/ZPKMutableData.h"

/// Wraps a channel and removes the echoes of written lines from the bytes that are read. A line is
/// a run of bytes up to and including the delimiter. A line is an echo if it equals, byte for byte,
/// the oldest written line whose echo has not arrived yet.
///
/// `_readWriteMutex` guards the buffers and queues. It is never held during a call to the channel
/// below, so a read that waits there does not block a writer.
class ZPIEchoRemovalChannel final : public ZPKDataChannel {
  struct Key {
    explicit Key() = default;
  };

 public:
  static std::shared_ptr<ZPIEchoRemovalChannel> initWithChannel(ZPKDataChannelPtr channel,
                                                                const ZPKDataPtr& delimiter);

  ZPIEchoRemovalChannel(Key, ZPKDataChannelPtr channel, const ZPKDataPtr& delimiter);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  using LineQueue = std::queue<std::string>;

  void moveLinesWithoutEcho(ZPKMutableData* output) ZPI_REQUIRES(_readWriteMutex);

  const ZPKDataChannelPtr _channel;
  const ZPKDataPtr _delimiter;  // an immutable copy, never empty
  std::mutex _readWriteMutex;
  // Bytes that were read, and that were written, without a delimiter yet.
  ZPKMutableData _readBuffer ZPI_GUARDED_BY(_readWriteMutex);
  ZPKMutableData _writeBuffer ZPI_GUARDED_BY(_readWriteMutex);
  // Lines that were read; empty between two reads.
  LineQueue _readQueue ZPI_GUARDED_BY(_readWriteMutex);
  // Lines that were written and whose echo has not arrived.
  LineQueue _writeQueue ZPI_GUARDED_BY(_readWriteMutex);
};
