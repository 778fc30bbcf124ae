#include "Data Channel Internal/ZPIPassiveChannel.h"

#include <chrono>
#include <utility>

#include "Utility/ZPKReportFailure.h"

namespace {

using WallClock = std::chrono::system_clock;

double secondsSince(WallClock::time_point start) {
  return std::chrono::duration<double>(WallClock::now() - start).count();
}

double sliceOf(double timeout) {
  if (timeout == ZEPHAL_COMMUNICATION_TIME_NOW) return timeout;
  if (timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER) return timeout;
  return timeout / 10.0;
}

void store(ZPKErrorPtr* slot, ZPKErrorPtr error) {
  if (slot != nullptr) *slot = std::move(error);
}

}  // namespace

std::shared_ptr<ZPIPassiveChannel> ZPIPassiveChannel::initWithChannel(ZPKDataChannelPtr channel) {
  return std::make_shared<ZPIPassiveChannel>(Key(), std::move(channel));
}

ZPIPassiveChannel::ZPIPassiveChannel(Key, ZPKDataChannelPtr channel)
    : _channel(std::move(channel)) {}

bool ZPIPassiveChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel->openWithTimeout(timeout, error);
}

bool ZPIPassiveChannel::close(ZPKErrorPtr* error) { return _channel->close(error); }

bool ZPIPassiveChannel::reset(ZPKErrorPtr* error) { return _channel->reset(error); }

bool ZPIPassiveChannel::isOpened() const { return _channel->isOpened(); }

ZPKDataPtr ZPIPassiveChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  const WallClock::time_point start = WallClock::now();
  if (!_channel->isOpened()) {
    ZPKReportFailure(error, kZPICommunicationDomain, 2,
                     {"-[ZPIPassiveChannel readWithTimeout:error:]"},
                     "Cannot communicate with closed device");
    return nullptr;
  }
  const double slice = sliceOf(timeout);
  for (;;) {
    ZPKErrorPtr readError;
    ZPKDataPtr data = _channel->readWithTimeout(slice, &readError);
    if (data == nullptr) {
      store(error, std::move(readError));
      return nullptr;
    }
    if (data->length() != 0) return data;
    const bool isForever = timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER;
    if (!isForever && !(secondsSince(start) < timeout)) return ZPKData::data();
    if (!_channel->isOpened()) {
      store(error, nullptr);
      return nullptr;
    }
  }
}

bool ZPIPassiveChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return _channel->write(data, error);
}
