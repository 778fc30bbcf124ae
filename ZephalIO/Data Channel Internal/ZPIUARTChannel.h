#pragma once

#include <memory>

#include "Data Channel Internal/ZPIChannelAbilities.h"
#include "Data Channel Internal/ZPIUARTLifetimePolicy.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Utility/DescriptorOperation.h"

/// The base channel over a serial device. There is no lock; see ZPIFileDescriptorCommunication.
class ZPIUARTChannel final : public ZPKDataChannel, public ZPIChannelAbilities {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A channel to the device that the URL's path names. The caller's options, which may be null,
  /// are copied and replace the defaults. Null for a null URL. No system call is made.
  static std::shared_ptr<ZPIUARTChannel> initForURL(const ZPKURLPtr& url,
                                                    const ZPKOptionsPtr& options);

  ZPIUARTChannel(Key, const ZPKURLPtr& url, const ZPKOptionsPtr& options);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  const ZPKDataChannel* openSource() const override { return this; }
  std::optional<ZPKDataPtr> readOnto(ZPKMutableData* held, double timeout,
                                     ZPKErrorPtr* error) override;

  /// True only for a URL whose scheme is exactly "uart". Logs nothing.
  static bool checkURL(const ZPKURLPtr& url);
  /// A new dictionary with the defaults: 115200 baud, "8N1", exclusive.
  static ZPKOptionsPtr defaultConfig();

 private:
  using Handle = ZPIFileDescriptorCommunication<ZPIUARTLifetimePolicy>;
  const std::unique_ptr<Handle> _handle;
};
