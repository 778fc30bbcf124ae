// What a new user wants to do first, in at most ten lines each.
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <future>

#include "ZephalConsole/Console.h"

namespace {

using namespace zephal;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

DeviceBehaviour board() {
  return {.bootText = "booting\n",
          .login = DeviceLogin{.user = "root", .password = "secret"},
          .prompt = "# ",
          .echoes = true,
          .translatesLineEnds = true,
          .responses = {{"adc 3", "adc 3: 3.25 V\n"}, {"uname", "Linux\n"}}};
}

std::string logIn(const std::string& url, const Strings& passwords) {
  Console dut(url, {.prompt = "# ", .timeout = 20s});
  for (const std::string& password : passwords) {
    try {
      dut.login("root", password);
      break;
    } catch (const LoginRefused&) {
    }
  }
  return dut.ask("uname");
}

TEST(ATask, LoginThatSurvivesAWrongPassword) {
  SimulatedDevice device(DeviceKind::kUnix, board());
  EXPECT_EQ(logIn(device.url(), {"wrong", "secret"}), "Linux\n");
}

double volts(const std::string& url) {
  Console dut(url, {.prompt = "# ", .timeout = 20s});
  dut.login("root", "secret");
  return dut.ask("adc 3", regex(R"(([\d.]+) V)")).number();
}

TEST(ATask, ValueOutOfAnAnswer) {
  SimulatedDevice device(DeviceKind::kUnix, board());
  EXPECT_EQ(volts(device.url()), 3.25);
}

std::vector<TimedLine> recordFor(const std::string& url, Seconds duration) {
  Console dut(url);
  return dut.record(duration);
}

TEST(ATask, RecordForAWhileWithTimes) {
  SimulatedDevice device(DeviceKind::kUnix, board());
  const std::vector<TimedLine> lines = recordFor(device.url(), 2s);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "booting");
  EXPECT_LE(lines[0].time, lines[1].time);
}

std::string reconnect(Console& dut) {
  try {
    dut.expect("never");
  } catch (const Disconnected&) {
    dut.reopen();
  }
  dut.login("root", "secret");
  return dut.ask("uname");
}

TEST(ATask, ReconnectAfterAReboot) {
  SimulatedDevice device(DeviceKind::kTCP, board());
  Console dut(device.url(), {.prompt = "# ", .timeout = 20s});
  dut.login("root", "secret");
  device.reboot(50ms);
  EXPECT_EQ(reconnect(dut), "Linux\n");
}

std::string answerOf(const std::string& url, const std::string& command) {
  Console dut(url, {.prompt = "# ", .timeout = 20s});
  dut.login("root", "secret");
  return dut.ask(command);
}

Strings askAll(const Strings& urls, const std::string& command) {
  std::vector<std::future<std::string>> waiting;
  for (const std::string& url : urls) {
    waiting.push_back(std::async(std::launch::async, answerOf, url, command));
  }
  Strings answers;
  for (auto& answer : waiting) answers.push_back(answer.get());
  return answers;
}

TEST(ATask, EightDevicesAtOnce) {
  std::vector<std::unique_ptr<SimulatedDevice>> devices;
  Strings urls;
  for (int i = 0; i < 8; ++i) {
    devices.push_back(std::make_unique<SimulatedDevice>(DeviceKind::kUnix, board()));
    urls.push_back(devices.back()->url());
  }
  EXPECT_EQ(askAll(urls, "uname"), Strings(8, "Linux\n"));
}

}  // namespace
