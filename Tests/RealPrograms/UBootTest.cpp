// The console of a real boot loader, on an emulated machine.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "RealPrograms/Support/RealProgram.h"
#include "Support/Files.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kPrompt = "=> ";
constexpr const char* kImage = "/usr/lib/u-boot/qemu_arm/u-boot.bin";
// An emulated machine on a crowded one.
constexpr std::chrono::seconds kLimit = 120s;

// A machine whose first serial port is what QEMU calls `port`.
std::vector<std::string> machineWith(const std::string& port) {
  return {"qemu-system-arm", "-machine", "virt",  "-m",   "64",      "-nographic", "-nic", "none",
          "-monitor",        "none",     "-bios", kImage, "-serial", port};
}

// The bytes of a memory dump: "00000000: b8 00 00 ea ...  ascii" for every 16.
std::string bytesOf(const std::string& dump) {
  constexpr size_t kAddressLength = 10;
  constexpr size_t kHexLength = 47;
  std::string bytes;
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream numbers(line.substr(kAddressLength, kHexLength));
    for (unsigned number = 0; numbers >> std::hex >> number;) bytes += static_cast<char>(number);
  }
  return bytes;
}

// Boots, and stops autoboot as a person does.
class UBoot : public testing::Test {
 protected:
  UBoot() : _qemu({machineWith("unix:" + _path + ",server=on,wait=on")}) {
    _qemu.waitUntilItListens("unix://" + _path);
    dut = std::make_unique<Console>(
        "unix://" + _path,
        ConsoleOptions{.prompt = kPrompt, .rawLog = _folder.pathOf("raw"), .timeout = kLimit});
    dut->expect("Hit any key to stop autoboot");
    dut->write(" ");
    dut->expect(kPrompt);
  }

 private:
  TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("line");
  RealProgram _qemu;

 protected:
  std::unique_ptr<Console> dut;
};

TEST_F(UBoot, AnswersCommandsUntilItIsReset) {
  EXPECT_THAT(dut->ask("version"), StartsWith("U-Boot 20"));
  EXPECT_EQ(dut->ask("bdinfo", regex(R"(baudrate\s+= (\d+) bps)")).number(), 115200);
  EXPECT_EQ(dut->ask("setenv serial_no 4711"), "");
  EXPECT_EQ(dut->ask("printenv serial_no", regex(R"(serial_no=(\d+))")).number(), 4711);
  EXPECT_THROW(dut->ask("printenv serial_no", regex("absent")), NoMatch);
  const std::string bootText = dut->reboot("reset");
  EXPECT_THAT(bootText, HasSubstr("U-Boot 20"));
  EXPECT_THAT(bootText, HasSubstr("Hit any key to stop autoboot"));
  EXPECT_THAT(dut->ask("printenv serial_no"), HasSubstr("not defined"));
}

TEST_F(UBoot, DumpsItsMemoryWithoutLosingAByte) {
  constexpr size_t kSize = 0x2000;
  EXPECT_EQ(bytesOf(dut->ask("md.b 0 2000")), contentsOfFile(kImage).substr(0, kSize));
}

TEST_F(UBoot, IsTheSameAfterTheLineWasOpenedAgain) {
  EXPECT_EQ(dut->ask("setenv colour blue"), "");
  dut->reopen();
  EXPECT_EQ(dut->ask("printenv colour"), "colour=blue\n");
}

// The path of the pseudo-terminal that QEMU has made for the serial port.
std::string terminalOf(RealProgram& qemu) {
  const std::string mark = "redirected to ";
  qemu.waitUntil([&] { return qemu.output().find("(label serial0)") != std::string::npos; },
                 "it named its terminal");
  const std::string output = qemu.output();
  const size_t start = output.find(mark) + mark.size();
  return output.substr(start, output.find(' ', start) - start);
}

// What QEMU gets to send before the terminal is open is lost, so nobody knows how many prompts
// there were: the last one is that of this command.
void synchronize(ZPKCommStack& stack) {
  const int limit = static_cast<int>(kLimit.count());
  ASSERT_TRUE(stack.writeString(""));
  ASSERT_TRUE(stack.readStringWithTimeout(limit, std::nullopt).has_value());
  std::optional<std::string> answer = stack.sendCommandString("printenv fdt_addr", limit);
  while (answer.has_value() && answer->find("fdt_addr=") == std::string::npos) {
    answer = stack.readStringWithTimeout(limit, std::nullopt);
  }
  ASSERT_TRUE(answer.has_value());
}

TEST(UBootOnASerialPort, AnswersThroughAStack) {
  RealProgram qemu({machineWith("pty")});
  ZPKErrorPtr error;
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->setDelimiter(kPrompt) && stack->setLineTerminator("\r"));
  ASSERT_TRUE(stack->createStackWithURL("uart://" + terminalOf(qemu), &error));
  ASSERT_TRUE(stack->openWithTimeout(std::nullopt, &error));
  synchronize(*stack);
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval("echo one two", 60, &error),
            "\none two\r\n=> ");
  EXPECT_EQ(stack->sendCommandStringWithEchoRemoval(
                "bdinfo", ZPKRegex::initWithPattern("-> size += (0x[0-9a-f]+)"), 60, &error),
            "0x04000000");
  EXPECT_TRUE(stack->close(&error));
}

}  // namespace
