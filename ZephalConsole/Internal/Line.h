#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "ZPKDataChannel.h"
#include "ZephalConsole/Internal/Descriptor.h"
#include "ZephalConsole/Internal/Stop.h"
#include "ZephalConsole/Internal/Telnet.h"
#include "ZephalConsole/Internal/Wakeup.h"

namespace zephal::internal {

/// An open line to a device. One thread may read while another writes.
class Line {
 public:
  /// `port` is, for a serial line, the channel that has configured it and closes it; else null.
  /// `telnet` is, for a telnet server, what speaks with it; else null.
  Line(Descriptor descriptor, ZPKDataChannelPtr port, std::unique_ptr<Telnet> telnet = nullptr);
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  ~Line();

  /// Closes the channel of a serial port, which `descriptor` leads to as well.
  static void closePort(int descriptor, ZPKDataChannel& port) noexcept;

  struct ReadResult {
    size_t count = 0;
    bool hasEnded = false;
    int error = 0;  // why it has ended, if the system says so
    bool isWoken = false;
  };
  /// Reads what is there. If there is nothing, waits until there is, the deadline passes, or
  /// `wakeup` is set, which it leaves set. A lack of memory ends the line.
  ReadResult read(char* buffer, size_t size, const Deadline& deadline, const Wakeup& wakeup) const;
  /// Writes what the system accepts now, perhaps nothing; -1 with errno.
  ssize_t writeSome(std::string_view bytes) const;
  /// Waits until the line accepts or, if `orReadable`, has bytes, the deadline passes, or `wakeup`
  /// is set.
  void waitToWrite(bool orReadable, const Deadline& deadline, const Wakeup& wakeup) const;

 private:
  ReadResult readNow(char* buffer, size_t size) const;
  ReadResult receiveTelnet(char* buffer, size_t size) const;
  ssize_t send(std::string_view bytes) const;

  const Descriptor _descriptor;
  const ZPKDataChannelPtr _port;
  const std::unique_ptr<Telnet> _telnet;
};

}  // namespace zephal::internal
