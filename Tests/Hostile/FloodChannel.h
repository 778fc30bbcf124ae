#pragma once

#include <ZephalIO/ZephalIO.h>

#include <condition_variable>
#include <mutex>
#include <string>

/// A channel in memory whose device floods: it returns a text in pieces, and then waits in vain.
class FloodChannel final : public ZPKDataChannel {
 public:
  explicit FloodChannel(std::string text);

  /// Whether everything has been read, and the reader has come back for more.
  bool isUsedUp() const;
  void waitUntilUsedUp();

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  const std::string _text;
  size_t _next = 0;
  bool _isUsedUp = false;
  bool _isOpened = false;
};
