// URLs and the factory that they are given to, against the grammar of RFC 3986 written out rule by
// rule, and against what the factory's documentation says about schemes, ports and hosts.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPIEndpointSocket.h"
#include "Data Channel Internal/ZPIUARTChannel.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/URLModel.h"
#include "Support/Errors.h"
#include "Utility/ZPKURL.h"

namespace {

std::string logged;

void captureLog() {
  static const bool isSet = [] {
    ZPKLoggingSetSink([](int, std::string_view line) { logged.append(line).append("\n"); });
    return true;
  }();
  static_cast<void>(isSet);
}

// Text in which the marks of URLs are frequent, around parts that mean something.
std::string someURL(FuzzInput& input) {
  static constexpr std::string_view kParts[] = {"tcp:",       "uart:",     "unix:",
                                                "//",         "localhost", "10.0.0.1",
                                                "[::1]",      "[v1.a:b]",  ":4000",
                                                ":",          ":70000",    "/dev/",
                                                "%2F",        "%00",       "%",
                                                "?baud=9600", "&mode=8N1", "&",
                                                "mode",       "=",         "#",
                                                "@",          "[",         "]",
                                                "TCP:",       "?",         ":99999999999999999999",
                                                "a",          "1::2",      "x.y"};
  std::string url;
  while (!input.isUsedUp()) {
    const size_t kind = input.below(std::size(kParts) + 4);
    if (kind < std::size(kParts)) url += kParts[kind];
    if (kind >= std::size(kParts)) url += input.textOf("a1.:/?#[]@%&=+- v~\x7f\xff", 6);
  }
  return url;
}

void compare(const ZPKURL& url, const URLModel& model) {
  require(url.scheme() == model.scheme, "the scheme is the model's");
  require(url.host() == model.host, "the host is the model's");
  require(url.port() == model.port, "the port is the model's");
  require(url.path() == model.path, "the path is the model's");
  require(url.queryItems().size() == model.items.size(), "there are as many items");
  for (size_t i = 0; i < model.items.size(); ++i) {
    require(url.queryItems()[i].name == model.items[i].first, "the names are the model's");
    require(url.queryItems()[i].value == model.items[i].second, "the values are the model's");
  }
}

void makeChannel(const std::string& text, const std::optional<URLModel>& model) {
  logged.clear();
  ZPKErrorPtr error;
  const ZPKDataChannelPtr channel = createBaseChannelWithTransport(text, &error);
  const std::string scheme = model.has_value() ? model->scheme.value_or("") : "";
  const bool isSerial = scheme == "uart";
  const bool isSocket = scheme == "tcp" || scheme == "unix";
  require((channel != nullptr) == (isSerial || isSocket), "three schemes make a channel");
  require((dynamic_cast<ZPIUARTChannel*>(channel.get()) != nullptr) == isSerial, "a serial port");
  require((dynamic_cast<ZPIEndpointSocket*>(channel.get()) != nullptr) == isSocket, "a socket");
  if (channel == nullptr) {
    return require(support::codeOf(error) == 3 &&
                       support::descriptionOf(error).ends_with("Invalid URL scheme"),
                   "the error is that of a wrong scheme");
  }
  require(error == nullptr && !channel->isOpened(), "it is closed and has no error");
  const auto isLogged = [](const char* what) { return logged.find(what) != std::string::npos; };
  const bool isTCP = scheme == "tcp";
  const bool hasHost = !model->host.value_or("").empty();
  // The port is looked at as a 32-bit number.
  const bool hasPort = static_cast<uint32_t>(model->port.value_or(0)) <= 65535;
  require(isLogged("Invalid TCP port specification") == (isTCP && !hasPort), "a port is checked");
  require(isLogged("Invalid TCP host") == (isTCP && !hasHost), "a host is checked");
  require(isLogged("Invalid unix path") == (scheme == "unix" && model->path.empty()),
          "a path is checked");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  captureLog();
  FuzzInput input(bytes, size);
  // The model's regular expressions need much stack for long texts.
  std::string text = input.flag() ? someURL(input) : std::string(input.rest());
  text.resize(std::min<size_t>(text.size(), 200));
  const ZPKURLPtr url = ZPKURL::initWithString(text);
  const std::optional<URLModel> model = URLModel::parsed(text);
  require((url != nullptr) == model.has_value(), "the grammar decides");
  if (url != nullptr) compare(*url, *model);
  require(url == nullptr || url->absoluteString() == text, "the text is kept");
  makeChannel(text, model);
  return 0;
}
