// Logging in at Debian's agetty and login.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RealPrograms/Support/LoginMachine.h"
#include "Support/Files.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

class Login : public testing::Test {
 protected:
  void SetUp() override {
    const std::string obstacle = LoginMachine::obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
    _machine = std::make_unique<LoginMachine>();
  }

  std::string url() const { return _machine->url(); }
  std::string logPath() const { return _folder.pathOf("log"); }

 private:
  TemporaryFolder _folder;
  std::unique_ptr<LoginMachine> _machine;
};

TEST_F(Login, IsRefusedWithAWrongPasswordAndSucceedsWithTheRightOne) {
  Console dut(url(), {.prompt = LoginMachine::kPrompt, .log = logPath(), .timeout = 60s});
  EXPECT_THROW(dut.login(LoginMachine::kUser, "open-barley"), LoginRefused);
  dut.login(LoginMachine::kUser, LoginMachine::kPassword);
  EXPECT_EQ(dut.ask("echo $USER"), std::string(LoginMachine::kUser) + "\n");
  EXPECT_EQ(dut.run("(exit 3)").status, 3);
  const std::string log = contentsOfFile(logPath());
  EXPECT_THAT(log, HasSubstr("Login incorrect"));
  EXPECT_THAT(log, Not(HasSubstr("open-")));
}

TEST_F(Login, SendsNothingWhereSomebodyIsLoggedIn) {
  Console dut(url(), {.prompt = LoginMachine::kPrompt, .log = logPath(), .timeout = 60s});
  dut.login(LoginMachine::kUser, LoginMachine::kPassword);
  EXPECT_EQ(dut.ask("x=42"), "");
  dut.login("nobody-of-that-name", "wrong");
  EXPECT_EQ(dut.ask("echo $x"), "42\n");
  dut.send("exit");
  dut.login(LoginMachine::kUser, LoginMachine::kPassword);
  EXPECT_EQ(dut.ask("echo x$x"), "x\n");
  EXPECT_THAT(contentsOfFile(logPath()), Not(HasSubstr("nobody-of-that-name")));
}

TEST_F(Login, SucceedsStepByStepThroughAStack) {
  ZPKErrorPtr error;
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->setDelimiter("login: ") && stack->setLineTerminator("\r"));
  ASSERT_TRUE(stack->createStackWithURL(url(), &error) &&
              stack->openWithTimeout(std::nullopt, &error));
  EXPECT_TRUE(stack->readStringWithTimeout(60, std::nullopt, &error).has_value());
  stack->setDelimiter("Password: ");
  EXPECT_TRUE(stack->sendCommandString(LoginMachine::kUser, 60, &error).has_value());
  stack->setDelimiter(LoginMachine::kPrompt);
  EXPECT_TRUE(stack->sendCommandString(LoginMachine::kPassword, 60, &error).has_value());
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("echo $((6 * 7))", 60, &error),
            "\n42\r\n" + std::string(LoginMachine::kPrompt));
  EXPECT_TRUE(stack->close(&error));
}

}  // namespace
