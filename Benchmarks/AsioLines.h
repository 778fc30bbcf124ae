#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

/// Lines read with Asio's read_until and one character, each copied into a string of its own.
class AsioLines {
 public:
  AsioLines() = default;
  AsioLines(const AsioLines&) = delete;
  AsioLines& operator=(const AsioLines&) = delete;
  virtual ~AsioLines() = default;

  /// Whether this program was built with Asio.
  static bool isInstalled();
  /// Takes over a connected unix socket. A streambuf begins with room for 128 bytes, and Asio reads
  /// no more than there is room for or 512 bytes; `room` makes more from the start. Null without
  /// Asio.
  static std::shared_ptr<AsioLines> onUnixSocket(int fd, size_t room);

  virtual void write(std::string_view command) = 0;
  /// The length of the next line, line feed included.
  virtual size_t readLine() = 0;
};
