#pragma once

#include <memory>

#include "Data Channel Internal/ZPIActivesocketLifetimePolicy.h"
#include "Data Channel/ZPKDataChannel.h"
#include "Utility/DescriptorOperation.h"

/// The base channel over one connected socket. Begins closed for a URL, open for an adopted socket,
/// which has no way back once it is closed. No lock; see ZPIFileDescriptorCommunication.
class ZPIEndpointSocket final : public ZPKDataChannel {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A channel to the URL's peer; null for a null URL.
  static std::shared_ptr<ZPIEndpointSocket> initForURL(const ZPKURLPtr& url);
  /// A channel that takes over `socket`, without any test and without setting any option. No
  /// program that is started inherits it any more, except for standard input, output and error.
  static std::shared_ptr<ZPIEndpointSocket> initWithSocket(int32_t socket);

  ZPIEndpointSocket(Key, int32_t socket, const ZPKURLPtr& url);

  bool openWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool close(ZPKErrorPtr* error) override;
  bool reset(ZPKErrorPtr* error) override;
  bool isOpened() const override;
  ZPKDataPtr readWithTimeout(double timeout, ZPKErrorPtr* error) override;
  bool write(const ZPKDataPtr& data, ZPKErrorPtr* error) override;

  /// False for a null URL alone. What will not connect is only logged.
  static bool checkURL(const ZPKURLPtr& url);

 private:
  using Handle = ZPIFileDescriptorCommunication<ZPIActivesocketLifetimePolicy>;
  const std::unique_ptr<Handle> _handle;
};
