// A serial port that picocom wants to open as well.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RealPrograms/Support/Shell.h"
#include "Support/Files.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::HasSubstr;

class ASerialPortInUse : public testing::Test {
 protected:
  ASerialPortInUse() {
    _shell = serveShell(serialPortAt(path));
    waitForSerialPort(*_shell, path);
  }

  std::string url() const { return "uart://" + path; }

  // Root may open what others hold, so picocom is an ordinary user. It sends the shell a command,
  // and stays until it is killed.
  RealProgram::Setup picocom() const {
    return {.command = {"picocom", "--quiet", "--exit-after", "600000", "--initstring",
                        "echo $((40 + 2)) > " + picocomsFile + "\n", path},
            .asOrdinaryUser = true};
  }

  void waitUntilItHasSent(RealProgram& picocom) const {
    picocom.waitUntil([this] { return contentsOfFile(picocomsFile) == "42\n"; },
                      "the shell had obeyed it");
  }

 private:
  TemporaryFolder _folder;
  std::unique_ptr<RealProgram> _shell;

 protected:
  const std::string path = _folder.pathOf("port");
  const std::string picocomsFile = _folder.pathOf("picocoms");
  const std::string ourFile = _folder.pathOf("ours");
};

TEST_F(ASerialPortInUse, IsBusyForPicocomWhileAConsoleHoldsIt) {
  Console dut(url(), {.prompt = kPrompt, .timeout = 60s});
  synchronize(dut);
  RealProgram second(picocom());
  EXPECT_EQ(second.waitForEnd(), 1);
  EXPECT_THAT(second.output(), HasSubstr("Device or resource busy"));
  EXPECT_EQ(dut.ask("echo undisturbed"), "undisturbed\n");
}

TEST_F(ASerialPortInUse, IsSharedWithPicocomIfItIsNotHeld) {
  ZPKErrorPtr error;
  const auto options = ZPKOptions::init();
  options->set(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, ZPKNumber(false));
  const auto port = createUARTChannel(ZPKURL::initWithString(url()), options, &error);
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(port, &error));
  ASSERT_TRUE(stack->openWithTimeout(std::nullopt, &error));
  RealProgram second(picocom());
  waitUntilItHasSent(second);
  // Either of the two gets what the shell prints, so only what it does can be relied on.
  stack->writeString("echo $((1 + 1)) > " + ourFile, &error);
  EXPECT_TRUE(waitFor([this] { return contentsOfFile(ourFile) == "2\n"; }));
  EXPECT_TRUE(stack->close(&error));
}

TEST_F(ASerialPortInUse, IsOpenedBesideAPicocomThatLocksIt) {
  RealProgram first(picocom());
  waitUntilItHasSent(first);
  Console dut(url(), {.prompt = kPrompt, .timeout = 60s});
  dut.send("echo $((1 + 1)) > " + ourFile);
  EXPECT_TRUE(waitFor([this] { return contentsOfFile(ourFile) == "2\n"; }));
  first.kill();
  synchronize(dut);
  EXPECT_EQ(dut.ask("echo alone"), "alone\n");
}

}  // namespace
