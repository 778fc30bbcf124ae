// Where real programs listen.
#pragma once

#include <string>

namespace support {

/// A loopback address (127.x.y.z) that no other test uses, so that a program can listen at any
/// fixed port of it: most cannot say which port the system has chosen. The ports of the tests are
/// below those that the system gives out.
std::string loopbackAddress();

/// Whether somebody listens at "tcp://127.1.2.3:4001" or "unix:///tmp/...". It only looks, because
/// a program that serves one client would take a connection for it.
bool isListening(const std::string& url);

}  // namespace support
