#include "ZephalConsole/Internal/TrafficLog.h"

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "ZPKDataChannelDecorators.h"
#include "ZephalConsole/Errors.h"

namespace zephal::internal {

// The channel below the logging channel: it has just read what it is given, and writes nowhere.
class TrafficLog::Feed final : public ZPKDataChannel {
 public:
  void give(std::string_view bytes) { _next = ZPKData::dataWithBytes(bytes.data(), bytes.size()); }

  bool openWithTimeout(double, ZPKErrorPtr*) override { return _isOpen = true; }
  bool close(ZPKErrorPtr*) override { return std::exchange(_isOpen, false); }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return _isOpen; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override { return std::move(_next); }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override { return true; }

 private:
  bool _isOpen = false;
  ZPKDataPtr _next;
};

TrafficLog::TrafficLog(const std::string& path, std::string_view identifier) {
  if (path.empty()) return;
  _feed = std::make_shared<Feed>();
  _channel = createLoggingChannel(_feed, path, identifier, false);
}

void TrafficLog::open(const std::string& url) {
  if (_channel == nullptr || _channel->isOpened()) return;
  ZPKErrorPtr error;
  errno = 0;
  if (_channel->openWithTimeout(0.0, &error)) return;
  const int number = errno;
  if (error != nullptr) {
    throw OpenError("cannot open the log: " + error->description(), error->domain(), error->code(),
                    url);
  }
  // A file that cannot be made has no error, but an errno.
  if (number != 0) {
    throw OpenError("cannot create the log: " + std::generic_category().message(number), "POSIX",
                    number, url);
  }
  throw OpenError("cannot create the log", std::string(kConsoleDomain),
                  static_cast<int>(ErrorCode::kOpen), url);
}

void TrafficLog::close() {
  if (_channel == nullptr || !_channel->isOpened()) return;
  try {
    _channel->close();
  } catch (const std::bad_alloc&) {
    // The file is closed; only the report of a failure needs memory.
  }
}

void TrafficLog::read(std::string_view bytes) {
  if (_channel == nullptr || bytes.empty()) return;
  _feed->give(bytes);
  _channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW);
}

void TrafficLog::wrote(std::string_view bytes) {
  if (_channel == nullptr || bytes.empty()) return;
  _channel->write(ZPKData::dataWithBytes(bytes.data(), bytes.size()));
}

}  // namespace zephal::internal
