// Shells at the other end of what socat makes of one kind of line for another.
#include <ZephalConsole/Console.h>
#include <gtest/gtest.h>

#include "RealPrograms/Support/Listener.h"
#include "RealPrograms/Support/Shell.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;

// A TCP port at which every connection gets a shell of its own.
class SharedShell : public testing::Test {
 protected:
  SharedShell() {
    shell = serveShell("TCP-LISTEN:4001,bind=" + _address + ",reuseaddr,fork");
    shell->waitUntilItListens("tcp://" + _address + ":4001");
  }

  std::string remote() const { return "TCP:" + _address + ":4001"; }

  TemporaryFolder folder;
  const ConsoleOptions options{.prompt = kPrompt, .timeout = 60s};

 private:
  const std::string _address = loopbackAddress();

 protected:
  std::unique_ptr<RealProgram> shell;
};

using AUnixSocketForATCPPort = SharedShell;
using ASerialPortForATCPPort = SharedShell;

TEST_F(AUnixSocketForATCPPort, BringsTheShellAndAnotherOneAfterReopening) {
  const std::string path = folder.pathOf("line");
  RealProgram between({{"socat", "UNIX-LISTEN:" + path + ",fork", remote()}});
  between.waitUntilItListens("unix://" + path);
  Console dut("unix://" + path, options);
  dut.expect(kPrompt);
  EXPECT_EQ(dut.ask("x=42; echo $x"), "42\n");
  dut.reopen();
  dut.expect(kPrompt);
  EXPECT_EQ(dut.ask("echo \"<$x>\""), "<>\n");
}

TEST_F(AUnixSocketForATCPPort, EndsWithTheShell) {
  const std::string path = folder.pathOf("line");
  RealProgram between({{"socat", "UNIX-LISTEN:" + path, remote()}});
  between.waitUntilItListens("unix://" + path);
  Console dut("unix://" + path, options);
  dut.expect(kPrompt);
  EXPECT_THROW(dut.ask("exit"), Disconnected);
  EXPECT_THROW(dut.reopen(100ms), OpenError);
}

TEST_F(ASerialPortForATCPPort, ComesBackWithTheProgramThatMadeIt) {
  const std::string link = folder.pathOf("port");
  const auto plugIn = [&] {
    auto adapter =
        std::make_unique<RealProgram>(RealProgram::Setup{{"socat", serialPortAt(link), remote()}});
    waitForSerialPort(*adapter, link);
    return adapter;
  };
  std::unique_ptr<RealProgram> adapter = plugIn();
  Console dut("uart://" + link, options);
  synchronize(dut);
  EXPECT_EQ(dut.ask("echo $((6 * 7))"), "42\n");
  adapter->kill();
  EXPECT_THROW(dut.expect("never"), Disconnected);
  EXPECT_FALSE(dut.isOpen());
  adapter = plugIn();
  dut.reopen();
  synchronize(dut);
  EXPECT_EQ(dut.ask("echo $((6 * 7))"), "42\n");
}

}  // namespace
