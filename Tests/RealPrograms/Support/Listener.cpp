#include "RealPrograms/Support/Listener.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>

namespace support {
namespace {

constexpr const char* kTCP = "tcp://";
constexpr const char* kUnix = "unix://";

bool hasLine(const char* file, const std::string& first, const std::string& second) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find(first);
    if (at != std::string::npos && line.find(second, at) != std::string::npos) return true;
  }
  return false;
}

// See proc_net_tcp in the kernel's documentation: the address, the peer's, and 0A for listening.
bool isListeningAt(const std::string& address, int port) {
  in_addr binary{};
  if (::inet_pton(AF_INET, address.c_str(), &binary) != 1) {
    throw std::invalid_argument("not an address: " + address);
  }
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), ": %08X:%04X ", binary.s_addr, port);
  return hasLine("/proc/net/tcp", text.data(), "00000000:0000 0A ");
}

}  // namespace

std::string loopbackAddress() {
  std::random_device random;
  std::uniform_int_distribution<int> number(1, 254);
  const auto part = [&] { return "." + std::to_string(number(random)); };
  return "127" + part() + part() + part();
}

bool isListening(const std::string& url) {
  if (url.starts_with(kUnix)) {
    // The flag 00010000 says that the socket listens.
    return hasLine("/proc/net/unix", " 00010000 ", url.substr(std::string(kUnix).size()));
  }
  const size_t colon = url.rfind(':');
  const std::string address =
      url.substr(std::string(kTCP).size(), colon - std::string(kTCP).size());
  return isListeningAt(address, std::stoi(url.substr(colon + 1)));
}

}  // namespace support
