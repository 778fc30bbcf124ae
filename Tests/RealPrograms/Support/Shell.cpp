#include "RealPrograms/Support/Shell.h"

#include <sys/stat.h>

namespace support {

// An empty HISTFILE, so that the shell writes no history when its terminal goes away.
std::unique_ptr<RealProgram> serveShell(const std::string& address, const std::string& command) {
  return std::make_unique<RealProgram>(RealProgram::Setup{
      .command = {"socat", address, "EXEC:" + command + ",pty,setsid,ctty,stderr"},
      .environment = {"PS1=" + std::string(kPrompt), "TERM=xterm", "HISTFILE="}});
}

// Without ignoreeof socat ends when the port is closed.
std::string serialPortAt(const std::string& link) {
  return "PTY,link=" + link + ",raw,echo=0,mode=666,ignoreeof";
}

void waitForSerialPort(RealProgram& program, const std::string& link) {
  const auto isReady = [&link] {
    struct stat status {};
    return ::stat(link.c_str(), &status) == 0 && (status.st_mode & 0666) == 0666;
  };
  program.waitUntil(isReady, "it made " + link);
}

void synchronize(zephal::Console& dut) {
  dut.send("echo in-$((40 + 2))-sync");
  dut.expect("in-42-sync\r\n");
  dut.expect(kPrompt);
}

}  // namespace support
