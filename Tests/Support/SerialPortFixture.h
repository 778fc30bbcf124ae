#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Data Channel Internal/ZPIUARTLifetimePolicy.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/TransportPeer.h"

namespace support {

/// The settings with which a serial port is opened.
ZPKOptionsPtr optionsOf(ZPKNumber baud, const std::string& mode, bool isExclusive = true);

/// The system's text for an errno, and the number, as errors show them.
std::string numbered(int number);

/// A serial port under test. If a test leaves it open, it is closed at the end.
class Port {
 public:
  Port() = default;
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;
  ~Port();

  bool open(const std::string& url, const ZPKOptionsPtr& options, ZPKErrorPtr* error = nullptr);

  int32_t descriptor = -1;
};

/// A pseudo-terminal and a port to open on it.
class SerialPortFixture : public testing::Test {
 protected:
  static constexpr const char* kFile = "ZPIUARTLifetimePolicy.cpp";
  static constexpr const char* kOpen = "openPortWithError__no_cleanup";

  bool open(ZPKNumber baud, const std::string& mode, bool isExclusive = true) {
    return _port.open(_peer.url(), optionsOf(baud, mode, isExclusive), &_error);
  }

  TransportPeer _peer{TransportPeer::Kind::kTerminal};
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
  Port _port;
};

}  // namespace support
