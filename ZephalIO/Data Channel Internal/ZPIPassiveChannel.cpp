#include "Data Channel Internal/ZPIPassiveChannel.h"

#include <chrono>
#include <utility>

#include "Utility/ZPKReportFailure.h"

namespace {

using WallClock = std::chrono::system_clock;

double secondsSince(WallClock::time_point start) {
  return std::chrono::duration<double>(WallClock::now() - start).count();
}

// Whether the clock decides when a read ends. NOW ends after one attempt, FOREVER never.
bool isTimed(double timeout) {
  return timeout != ZEPHAL_COMMUNICATION_TIME_NOW && timeout != ZEPHAL_COMMUNICATION_TIME_FOREVER;
}

// A tenth of the timeout. The channel below must reject a negative timeout, so it must not become
// NOW or FOREVER on its way there.
double sliceOf(double timeout) {
  if (!isTimed(timeout)) return timeout;
  const double slice = timeout / 10.0;
  return timeout > 0.0 || isTimed(slice) ? slice : timeout;
}

ZPKDataPtr refuseClosed(ZPKErrorPtr* error) {
  ZPKReportFailure(error, kZPICommunicationDomain, 2,
                   {"-[ZPIPassiveChannel readWithTimeout:error:]"},
                   "Cannot communicate with closed device");
  return nullptr;
}

void setSlot(ZPKErrorPtr* slot, ZPKErrorPtr error) {
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

bool ZPIPassiveChannel::isOpened() const { return _channel.isOpened(); }

ZPKDataPtr ZPIPassiveChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  return _channel.isOpened() ? readOpened(timeout, error) : refuseClosed(error);
}

// A unit that is already buffered needs no clock, which would cost more than the unit.
ZPKDataPtr ZPIPassiveChannel::readOpened(double timeout, ZPKErrorPtr* error) {
  ZPKDataPtr data = _channel.takeHeldUnit();
  if (data == nullptr) readInSlices(timeout, &data, error);
  return data;
}

// Reads below until there are bytes or the time is up.
void ZPIPassiveChannel::readInSlices(double timeout, ZPKDataPtr* data, ZPKErrorPtr* error) {
  const bool hasTimeLimit = isTimed(timeout);
  const WallClock::time_point start = hasTimeLimit ? WallClock::now() : WallClock::time_point();
  const double slice = sliceOf(timeout);
  for (;;) {
    ZPKErrorPtr readError;
    *data = _channel->readWithTimeout(slice, &readError);
    if (*data == nullptr) {
      setSlot(error, std::move(readError));
      return;
    }
    if ((*data)->length() != 0) return;
    *data = ZPKData::data();
    if (timeout == ZEPHAL_COMMUNICATION_TIME_NOW) return;
    if (hasTimeLimit && !(secondsSince(start) < timeout)) return;
    if (!_channel.isOpened()) {
      *data = nullptr;
      setSlot(error, nullptr);
      return;
    }
  }
}

bool ZPIPassiveChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  return _channel->write(data, error);
}
