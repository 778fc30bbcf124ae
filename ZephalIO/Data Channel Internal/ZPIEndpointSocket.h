#pragma once

#include <memory>

#include "Data Channel Internal/ZPIActivesocketLifetimePolicy.h"
#include "Data Channel Internal/ZPIChannelAbilities.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Utility/DescriptorOperation.h"

/// The base channel over one connected socket. With a URL it starts closed; with an adopted socket
/// it starts open, and cannot be opened again after close. There is no lock; see
/// ZPIFileDescriptorCommunication.
class ZPIEndpointSocket final : public ZPKDataChannel, public ZPIChannelAbilities {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A channel to the URL's peer; null for a null URL.
  static std::shared_ptr<ZPIEndpointSocket> initForURL(const ZPKURLPtr& url);
  /// A channel that takes over `socket`. It does not check it and sets no option of it. Programs
  /// that are started no longer inherit it, unless it is standard input, output or error.
  static std::shared_ptr<ZPIEndpointSocket> initWithSocket(int32_t socket);

  ZPIEndpointSocket(Key, int32_t socket, const ZPKURLPtr& url);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  const ZPKDataChannel* openSource() const override { return this; }
  std::optional<ZPKDataPtr> readOnto(ZPKMutableData* held, double timeout,
                                     ZPKErrorPtr* error) override;

  /// False only for a null URL. A URL that cannot be connected to is only logged.
  static bool checkURL(const ZPKURLPtr& url);

 private:
  using Handle = ZPIFileDescriptorCommunication<ZPIActivesocketLifetimePolicy>;
  const std::unique_ptr<Handle> _handle;
};
