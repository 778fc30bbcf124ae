// A shell that socat serves, as the device at the other end of whatever socat can open.
#pragma once

#include <ZephalConsole/Console.h>

#include <memory>
#include <string>

#include "RealPrograms/Support/RealProgram.h"

namespace support {

/// The prompt of the shell.
inline constexpr const char* kPrompt = "board$ ";

/// Starts socat between `address` (see socat(1)) and a new interactive bash on a terminal of its
/// own, with echo. Unless told otherwise, it edits lines.
std::unique_ptr<RealProgram> serveShell(const std::string& address,
                                        const std::string& command = "bash --norc -i");

/// The address of a pseudo-terminal for socat, as a serial port that everybody may open, also a
/// second time. Its place is that of a symbolic link.
std::string serialPortAt(const std::string& link);

/// Waits until the link of a serial port is there, and everybody may open it.
void waitForSerialPort(RealProgram& program, const std::string& link);

/// Waits until the shell has answered, whatever it has said before.
void synchronize(zephal::Console& dut);

}  // namespace support
