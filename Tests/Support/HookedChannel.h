#pragma once

#include <functional>

#include "Data Channel/ZPKDataChannel.h"

namespace support {

/// An open channel without a device that calls back when it is used and when it is destroyed.
class HookedChannel final : public ZPKDataChannel {
 public:
  ~HookedChannel() override {
    if (onDestroy) onDestroy();
  }

  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    if (onRead) onRead();
    return toRead;
  }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override {
    if (onWrite) onWrite();
    return true;
  }

  std::function<void()> onRead;
  std::function<void()> onWrite;
  std::function<void()> onDestroy;
  ZPKDataPtr toRead = ZPKData::data();
};

}  // namespace support
