// A serial port that ser2net exports over TCP, with a shell at its other end.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RealPrograms/Support/Listener.h"
#include "RealPrograms/Support/Shell.h"
#include "Support/Files.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::HasSubstr;

class Ser2net : public testing::Test {
 protected:
  Ser2net() {
    _shell = serveShell(serialPortAt(_port));
    waitForSerialPort(*_shell, _port);
    writeFile(_folder.pathOf("ser2net.yaml"),
              "%YAML 1.1\n---\n"
              "connection: &board\n"
              "  accepter: tcp," +
                  _address +
                  ",4001\n"
                  "  connector: serialdev," +
                  _port + ",115200n81,local\n");
    start();
  }

  void start() {
    ser2net = std::make_unique<RealProgram>(
        RealProgram::Setup{{"ser2net", "-n", "-u", "-c", _folder.pathOf("ser2net.yaml"), "-P",
                            _folder.pathOf("pid")}});
    ser2net->waitUntilItListens(url());
  }

  std::string url() const { return "tcp://" + _address + ":4001"; }

  const ConsoleOptions options{.prompt = kPrompt, .timeout = 60s};
  std::unique_ptr<RealProgram> ser2net;

 private:
  TemporaryFolder _folder;
  const std::string _port = _folder.pathOf("port");
  const std::string _address = loopbackAddress();
  std::unique_ptr<RealProgram> _shell;
};

TEST_F(Ser2net, PassesCommandsAndLongAnswers) {
  Console dut(url(), options);
  synchronize(dut);
  EXPECT_EQ(dut.run("echo good; (exit 4)").status, 4);
  std::string expected;
  for (int i = 1; i <= 20000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(dut.ask("seq 20000"), expected);
}

TEST_F(Ser2net, IsReopenedAfterItWasKilledAndStartedAgain) {
  Console dut(url(), options);
  synchronize(dut);
  EXPECT_EQ(dut.ask("x=42"), "");
  ser2net->kill();
  EXPECT_THROW(dut.expect("never"), Disconnected);
  EXPECT_THROW(dut.reopen(100ms), OpenError);
  start();
  dut.reopen();
  synchronize(dut);
  EXPECT_EQ(dut.ask("echo $x"), "42\n");
}

TEST_F(Ser2net, TellsASecondClientThatThePortIsInUse) {
  Console dut(url(), options);
  synchronize(dut);
  Console second(url(), options);
  try {
    second.expect(kPrompt);
    ADD_FAILURE() << "a second client got the prompt";
  } catch (const Disconnected& error) {
    EXPECT_THAT(error.received(), HasSubstr("Port already in use"));
  }
  EXPECT_EQ(dut.ask("echo still here"), "still here\n");
}

TEST_F(Ser2net, IsReachedByANewStackAfterItWasKilled) {
  ZPKLoggingSetSink([](int, std::string_view) {});
  ZPKErrorPtr error;
  const auto stack = ZPKCommStack::init();
  const auto connect = [&] {
    return stack->createStackWithURL(url(), &error) && stack->openWithTimeout(std::nullopt, &error);
  };
  ASSERT_TRUE(connect());
  stack->setDelimiter("in-42-sync\r\n");
  EXPECT_TRUE(stack->sendCommandString("echo in-$((40 + 2))-sync", 60, &error).has_value());
  ser2net->kill();
  EXPECT_FALSE(stack->sendCommandString("echo lost", 60, &error).has_value());
  EXPECT_EQ(stack->isOpen(), 0);
  EXPECT_FALSE(connect());
  start();
  ASSERT_TRUE(connect());
  EXPECT_TRUE(stack->sendCommandString("echo in-$((40 + 2))-sync", 60, &error).has_value());
  EXPECT_TRUE(stack->close(&error));
  ZPKLoggingSetSink(nullptr);
}

}  // namespace
