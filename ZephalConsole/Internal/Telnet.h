#pragma once

#include <sys/types.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace zephal::internal {

/// The telnet protocol (RFC 854) for a line that carries bytes: asks for binary transmission both
/// ways and, with a baud rate, for that of the server's serial port (RFC 2217). All other options
/// are refused.
///
/// One thread may receive while another writes.
class Telnet {
 public:
  /// Sends what the system accepts now, perhaps nothing; -1 with errno.
  using Send = std::function<ssize_t(std::string_view)>;

  /// A baud rate of 0 leaves the server's port as it is.
  explicit Telnet(uint32_t baud);

  /// Sends what the server must be told first.
  void begin(const Send& send);
  /// Takes everything that is no data out of what was received, returns the new size, and answers
  /// the server.
  size_t receive(char* bytes, size_t size, const Send& send);
  /// Writes some of the bytes, perhaps none; -1 with errno.
  ssize_t write(std::string_view bytes, const Send& send);

 private:
  enum class State { kData, kReturn, kCommand, kOption, kSubnegotiation, kSubnegotiationCommand };
  using Options = std::bitset<256>;

  bool isData(unsigned char byte);
  bool isDataAfterCommand(unsigned char byte);
  void negotiate(unsigned char option);
  void weMay(unsigned char option);
  void serverWill(unsigned char option);
  void turnOff(unsigned char option, Options& options, unsigned char refusal);
  void setBaudRate();
  void answer(std::string_view bytes);
  ssize_t flush(const Send& send);

  const uint32_t _baud;
  // Of the thread that receives.
  State _state = State::kData;
  unsigned char _verb = 0;
  Options _ours;    // the options that we have offered or agreed to have
  Options _theirs;  // those of the server
  bool _isBinary = false;

  std::mutex _mutex;
  std::string _owed;  // goes out before anything else
};

}  // namespace zephal::internal
