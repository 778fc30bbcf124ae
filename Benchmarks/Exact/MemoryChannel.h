#pragma once

#include <ZephalIO/ZephalIO.h>

#include <string>

/// Returns the same text over and over, in pieces, each in a block of its own like a transport's.
/// It makes no system call, so that only the layers above it are counted.
class MemoryChannel final : public ZPKDataChannel {
 public:
  MemoryChannel(std::string text, size_t piece);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

 private:
  const std::string _text;
  const size_t _piece;
  size_t _next = 0;
  bool _isOpened = false;
};
