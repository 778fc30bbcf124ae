#pragma once

#include <string>
#include <utility>

namespace zephal {

/// The kinds of line by which a simulated device can be reached.
enum class DeviceKind { kTerminal, kTCP, kUnix };

/// Where a simulated device can be reached. If only the kind is given, the device chooses an
/// address that is free; its url() tells which.
struct DevicePlace {
  /// An address that the device chooses. Implicit, so that a kind can be passed as a place.
  DevicePlace(DeviceKind line) : kind(line) {}

  /// A pseudo-terminal with a symbolic link to it at `link`, where nothing may exist yet.
  static DevicePlace terminalAt(std::string link) {
    return {DeviceKind::kTerminal, std::move(link), 0};
  }
  /// The TCP port `number` on 127.0.0.1; 0: a free one.
  static DevicePlace tcpAt(int number) { return {DeviceKind::kTCP, "", number}; }
  /// A unix socket at `file`, where nothing may exist yet.
  static DevicePlace unixAt(std::string file) { return {DeviceKind::kUnix, std::move(file), 0}; }

  /// The kind of line.
  DeviceKind kind;
  /// The link to the terminal or the socket file; empty: in a temporary folder of its own.
  std::string path;
  /// The TCP port; 0: a free one.
  int port = 0;

 private:
  DevicePlace(DeviceKind line, std::string where, int number)
      : kind(line), path(std::move(where)), port(number) {}
};

}  // namespace zephal
