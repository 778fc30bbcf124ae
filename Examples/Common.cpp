#include "Common.h"

#include <ZephalLogging/ZephalLogging.h>
#include <arpa/inet.h>
#include <locale.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

namespace {

constexpr int kHelpOption = 1;
constexpr int kVersionOption = 2;

// For clients that arrive all at once.
constexpr int kBacklog = 32;

std::vector<option> withCommonOptions(std::vector<option> options) {
  options.push_back({"help", no_argument, nullptr, kHelpOption});
  options.push_back({"version", no_argument, nullptr, kVersionOption});
  options.push_back({});
  return options;
}

std::optional<int> integerIn(std::string_view text) {
  int number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string programName(std::string_view path) {
  return std::string(path.substr(path.rfind('/') + 1));
}

// How many bytes at the front form a character that a terminal obeys or does not show, or no
// character at all: control characters, and the marks that break a line or change its direction.
size_t unprintableLength(std::string_view text, bool isUTF8) {
  const auto first = static_cast<uint8_t>(text[0]);
  if (first < 0x20 || first == 0x7F) return 1;
  if (first < 0x80) return 0;
  if (!isUTF8) return 1;
  const std::string_view two = text.substr(0, 2);
  const std::string_view three = text.substr(0, 3);
  if (two >= "\xC2\x80" && two <= "\xC2\x9F") return 2;
  if (three >= "\xE2\x80\xA8" && three <= "\xE2\x80\xAE") return 3;
  if (three >= "\xE2\x81\xA6" && three <= "\xE2\x81\xA9") return 3;
  return 0;
}

}  // namespace

CommandLine::CommandLine(int count, char** words, const char* help, std::vector<option> options)
    : _count(count), _words(words), _help(help), _options(withCommonOptions(std::move(options))) {}

int CommandLine::nextOption() {
  // The plus ends the options at the first word that is not one.
  const int option = ::getopt_long(_count, _words, "+", _options.data(), &_option);
  if (option == -1) return 0;
  if (option == kHelpOption) {
    std::fputs(_help, stdout);
    std::exit(kDone);
  }
  if (option == kVersionOption) {
    std::printf("%s (ZephalIO) %s\n", programName(_words[0]).c_str(), ZEPHALIO_VERSION);
    std::exit(kDone);
  }
  if (option == '?') endWithUsage();  // getopt_long has complained
  return option;
}

std::string CommandLine::text() const { return optarg; }

int CommandLine::integer(int lowest, int highest) const {
  return integerFrom(optionName(), optarg, lowest, highest);
}

double CommandLine::seconds() const {
  const std::optional<double> number = decimalFrom(optarg);
  if (!number.has_value() || !std::isfinite(*number) || *number < 0) {
    refuse(optionName() + " " + optarg + ": not a number of seconds");
  }
  return *number;
}

std::string CommandLine::word(const char* name) {
  if (!hasWords()) refuse(std::string("no ") + name);
  return _words[optind++];
}

int CommandLine::numberWord(const char* name, int lowest, int highest) {
  return integerFrom(name, word(name).c_str(), lowest, highest);
}

bool CommandLine::hasWords() const { return optind < _count; }

std::vector<std::string> CommandLine::words(const char* name) {
  if (!hasWords()) refuse(std::string("no ") + name);
  return {_words + std::exchange(optind, _count), _words + _count};
}

void CommandLine::end() const {
  if (hasWords()) refuse(std::string("too many words: ") + _words[optind]);
}

void CommandLine::refuse(const std::string& complaint) const {
  std::fprintf(stderr, "%s: %s\n", programName(_words[0]).c_str(), complaint.c_str());
  endWithUsage();
}

void CommandLine::endWithUsage() const {
  const std::string name = programName(_words[0]);
  const std::string_view help(_help);
  const std::string usage(help.substr(0, help.find('\n')));
  std::fprintf(stderr, "%s\n'%s --help' tells more.\n", usage.c_str(), name.c_str());
  std::exit(kBadUsage);
}

int CommandLine::integerFrom(const std::string& name, const char* text, int lowest,
                             int highest) const {
  const std::optional<int> number = integerIn(text);
  if (number.has_value() && *number >= lowest && *number <= highest) return *number;
  refuse(name + " " + text + ": not a number from " + std::to_string(lowest) + " to " +
         std::to_string(highest));
}

std::string CommandLine::optionName() const {
  return std::string("--") + _options[static_cast<size_t>(_option)].name;
}

QuietLog::QuietLog() {
  ZPKLoggingSetSink([this](int /*level*/, std::string_view line) {
    const std::lock_guard guard(_mutex);
    _lastLine = line;
  });
}

QuietLog::~QuietLog() { ZPKLoggingSetSink(nullptr); }

std::string QuietLog::reasonOf(const ZPKErrorPtr& error, int number) const {
  if (error != nullptr) return error->description();
  const std::lock_guard guard(_mutex);
  return _lastLine.empty() ? std::strerror(number) : _lastLine;
}

// std::from_chars would do the same, but not every standard library has it for a double.
std::optional<double> decimalFrom(const std::string& text) {
  static const locale_t plainLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
  // strtod(3) takes more than a decimal number.
  const bool isDecimal =
      text.find_first_of(" \t\n\v\f\r+") != 0 && text.find_first_of("xX") == std::string::npos;
  char* end = nullptr;
  errno = 0;
  const double number = ::strtod_l(text.c_str(), &end, plainLocale);
  const bool isOutOfRange = errno == ERANGE && (number == 0 || std::isinf(number));
  const bool isWhole = !text.empty() && end == text.c_str() + text.size();
  if (!isDecimal || isOutOfRange || !isWhole) return std::nullopt;
  return number;
}

std::string hintAt(const std::string& url) {
  if (url.find("://") != std::string::npos) return "";
  std::error_code failure;
  if (url.find('/') == std::string::npos && !std::filesystem::exists(url, failure)) {
    return url.find(':') == std::string::npos ? "" : "; did you mean tcp://" + url + "?";
  }
  const std::string path = std::filesystem::absolute(url, failure);
  return "; did you mean uart://" + path + " or unix://" + path + "?";
}

std::string printable(std::string_view text) {
  const bool isUTF8 = ZPKData::dataWithString(text)->string().has_value();
  std::string result;
  while (!text.empty()) {
    const size_t length = unprintableLength(text, isUTF8);
    for (const char byte : text.substr(0, length)) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<uint8_t>(byte));
      result += escape;
    }
    if (length == 0) result += text[0];
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return result;
}

int listenOnLoopback(int port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return -1;
  // A port whose last connections have only just ended may be reused at once.
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::listen(listener, kBacklog) == 0) {
    return listener;
  }
  const int number = errno;
  ::close(listener);
  errno = number;
  return -1;
}

std::string urlOfListener(int listener) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  char host[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
  return std::string("tcp://") + host + ":" + std::to_string(ntohs(address.sin_port));
}
