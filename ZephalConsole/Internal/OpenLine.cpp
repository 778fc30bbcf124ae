#include "ZephalConsole/Internal/OpenLine.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>

#include "ZPKURL.h"
#include "ZephalConsole/Errors.h"
#include "ZephalConsole/Internal/OpenSerialPort.h"
#include "ZephalConsole/Internal/Resolver.h"
#include "ZephalConsole/Internal/SocketConnection.h"

namespace zephal::internal {
namespace {

[[noreturn]] void refuse(const std::string& url, const std::string& why) {
  throw OpenError(why, std::string(kConsoleDomain), static_cast<int>(ErrorCode::kOpen), url);
}

[[noreturn]] void refuse(const std::string& url, const std::string& what, int number) {
  throw OpenError("cannot connect to " + what + ": " + std::generic_category().message(number),
                  "POSIX", number, url);
}

std::unique_ptr<Line> openUnixSocket(const ZPKURL& url, const Stop& stop, const Wakeup& wakeup) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& path = url.path();
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    refuse(url.absoluteString(), "not the path of a unix socket: \"" + path + "\"");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  SocketConnection connection(stop, wakeup);
  if (!connection.connect(reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
    refuse(url.absoluteString(), path, connection.error());
  }
  return std::make_unique<Line>(connection.take(), nullptr);
}

Descriptor connectTCP(const ZPKURL& url, const Stop& stop, const Wakeup& wakeup) {
  constexpr int64_t kHighestPort = 65535;
  const std::string host = url.host().value_or("");
  const int64_t port = url.port().value_or(0);
  if (host.empty()) refuse(url.absoluteString(), "the URL names no host");
  if (port < 1 || port > kHighestPort) refuse(url.absoluteString(), "the URL names no TCP port");
  const Addresses addresses = resolve(host, static_cast<int>(port), stop, url.absoluteString());
  SocketConnection connection(stop, wakeup);
  for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) {
    if (connection.connect(one->ai_addr, one->ai_addrlen)) return connection.take();
  }
  refuse(url.absoluteString(), host + " port " + std::to_string(port), connection.error());
}

// The query's baud rate; 0 if there is none.
uint32_t baudRateOf(const ZPKURL& url) {
  uint32_t rate = 0;
  for (const ZPKURLQueryItem& item : url.queryItems()) {
    const std::string value = item.value.value_or("");
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), rate);
    const bool isNumber = error == std::errc() && end == value.data() + value.size() && rate > 0;
    if (item.name != "baud" || !isNumber) {
      refuse(url.absoluteString(), "the query of a telnet URL may only be baud=RATE");
    }
  }
  return rate;
}

std::unique_ptr<Line> openTelnet(const ZPKURL& url, const Stop& stop, const Wakeup& wakeup) {
  const uint32_t baud = baudRateOf(url);
  return std::make_unique<Line>(connectTCP(url, stop, wakeup), nullptr,
                                std::make_unique<Telnet>(baud));
}

}  // namespace

std::unique_ptr<Line> openLine(const std::string& text, const Stop& stop, const Wakeup& wakeup) {
  const ZPKURLPtr url = ZPKURL::initWithString(text);
  if (url == nullptr) refuse(text, "not a URL");
  const std::string scheme = url->scheme().value_or("");
  if (scheme == "uart") return openSerialPort(*url);
  if (scheme == "tcp") return std::make_unique<Line>(connectTCP(*url, stop, wakeup), nullptr);
  if (scheme == "telnet") return openTelnet(*url, stop, wakeup);
  if (scheme == "unix") return openUnixSocket(*url, stop, wakeup);
  refuse(text, "the URL's scheme is not uart, tcp, telnet or unix");
}

}  // namespace zephal::internal
