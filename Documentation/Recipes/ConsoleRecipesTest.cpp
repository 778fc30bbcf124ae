// Runs the console's programs of the cookbook as processes, each against a simulated device, and
// compares what they print with what the pages show.
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Support/Program.h"

namespace {

using namespace std::chrono_literals;
using zephal::DeviceAnswer;
using zephal::DeviceKind;
using zephal::DeviceLogin;
using zephal::SimulatedDevice;
using Strings = std::vector<std::string>;

// What differs from run to run: the time and the process of a log's line, and seconds.
std::string withoutTimes(const std::string& text) {
  const std::regex moment(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}|\[\d+\]| +\d+\.\d{3} )");
  return std::regex_replace(text, moment, "<varies>");
}

// The output on the page, without the commands in front of it.
std::string shown(const std::string& recipe) {
  std::istringstream page(contentsOf(std::string(SHOWN_FOLDER) + "/" + recipe + ".out"));
  std::string text;
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("$ ")) text += line + "\n";
  }
  return withoutTimes(text);
}

class ConsoleRecipesTest : public ProgramTest {
 protected:
  // A recipe in the test's folder, where it leaves its logs.
  std::string commandOf(const std::string& recipe, const Strings& words) const {
    return "cd " + quoted(folder()) + " && PW=secret " + commandFor("console/" + recipe, words);
  }
  // Its output as the pages show it: they name a serial port.
  static std::string likeThePage(std::string output, const SimulatedDevice& device) {
    for (size_t at = 0; (at = output.find(device.url(), at)) != std::string::npos;) {
      output.replace(at, device.url().size(), "uart:///dev/ttyUSB0");
    }
    return withoutTimes(output);
  }
  // Runs a recipe, whose first argument is the device, and expects the output on its page.
  void expectShown(const std::string& recipe, const SimulatedDevice& device, Strings words = {},
                   int status = 0) {
    words.insert(words.begin(), device.url());
    const Outcome outcome = runCommand(commandOf(recipe, words));
    EXPECT_EQ(likeThePage(outcome.output, device), shown(recipe));
    EXPECT_EQ(outcome.status, status);
  }
};

TEST_F(ConsoleRecipesTest, TheFirstExampleLogsInAndAsks) {
  for (const DeviceKind kind : {DeviceKind::kTerminal, DeviceKind::kTCP, DeviceKind::kUnix}) {
    const SimulatedDevice device(
        kind, {.bootText = "Loading kernel\n",
               .login = DeviceLogin{.password = "secret"},
               .prompt = "# ",
               .echoes = true,
               .translatesLineEnds = true,
               .responses = {{"uname -sr", "Linux 6.6.7\n"}, {"adc 3", "adc 3: 3.25 V\n"}}});
    expectShown("first", device);
  }
}

TEST_F(ConsoleRecipesTest, AValueIsTakenOutOfTheAnswer) {
  const SimulatedDevice device(DeviceKind::kTCP,
                               {.echoes = true, .responses = {{"temperature", "T1: 21.5 C\n"}}});
  expectShown("value", device);
}

TEST_F(ConsoleRecipesTest, ALoginSurvivesAWrongPassword) {
  const SimulatedDevice device(DeviceKind::kTCP, {.bootText = "U-Boot 2024.01\n",
                                                  .login = DeviceLogin{.password = "secret"},
                                                  .prompt = "# ",
                                                  .echoes = true,
                                                  .translatesLineEnds = true,
                                                  .responses = {{"uname", "Linux\n"}}});
  expectShown("login", device, {"root", "guess", "secret"});
  EXPECT_NE(contentsOf(pathOf("boot.log")).find("U-Boot 2024.01\n"), std::string::npos);
  const Outcome again = runCommand(commandOf("login", {device.url(), "root", "guess"}));
  EXPECT_EQ(again.output, "Linux\n");
}

TEST_F(ConsoleRecipesTest, ACommandOfAShellHasAStatus) {
  const SimulatedDevice device(
      DeviceKind::kTCP,
      {.prompt = "# ",
       .echoes = true,
       .responses = {{"systemctl is-active app", "inactive\n"}, {"echo $?", "3\n"}}});
  expectShown("run", device, {}, 3);
}

TEST_F(ConsoleRecipesTest, SeveralDevicesAnswerAtOnce) {
  const SimulatedDevice first(DeviceKind::kTCP, {.responses = {{"version", "board 1.0\n"}}});
  const SimulatedDevice second(DeviceKind::kUnix, {.responses = {{"version", "board 2.0\n"}}});
  expectShown("several", first, {second.url()});
}

TEST_F(ConsoleRecipesTest, ARecordingHasTheTimeOfEachLine) {
  const SimulatedDevice device(DeviceKind::kTCP,
                               {.bootText = "Loading kernel\nStarting app\n", .prompt = ""});
  expectShown("record", device, {"3"});
}

TEST_F(ConsoleRecipesTest, ADeviceThatRebootsIsFoundAgain) {
  for (const DeviceKind kind : {DeviceKind::kTerminal, DeviceKind::kTCP, DeviceKind::kUnix}) {
    const SimulatedDevice device(
        kind, {.bootText = "U-Boot 2024.01\nDRAM: 512 MiB\n",
               .echoes = true,
               .responses = {{"reboot", DeviceAnswer::reboot("Going down\n", 300ms)}}});
    expectShown("reboot", device);
  }
}

TEST_F(ConsoleRecipesTest, ALateAnswerIsWaitedFor) {
  SimulatedDevice device(
      DeviceKind::kTCP,
      {.prompt = "", .responses = {{"selftest", "RAM is fine\n"}, {"version", "board 1.0\n=> "}}});
  std::FILE* const program = ::popen(commandOf("timeout", {device.url()}).c_str(), "r");
  ASSERT_NE(program, nullptr);
  std::array<char, 200> line{};
  EXPECT_NE(std::fgets(line.data(), line.size(), program), nullptr);
  device.send("flash is fine\n=> ");
  const std::string output = line.data() + readAll(program);
  EXPECT_EQ(::pclose(program), 0);
  EXPECT_EQ(likeThePage(output, device), shown("timeout"));
}

TEST_F(ConsoleRecipesTest, APasswordIsNotInTheLog) {
  const SimulatedDevice device(
      DeviceKind::kTerminal,
      {.prompt = "# ",
       .echoes = true,
       .translatesLineEnds = true,
       .responses = {{"passwd", DeviceAnswer::withoutPrompt("New password: ")}}});
  const Outcome outcome = runCommand(commandOf("passwords", {device.url(), "tell-nobody"}));
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(withoutTimes(contentsOf(pathOf("dut.log")) + "\n"), shown("passwords"));
  EXPECT_EQ(device.commands(), (Strings{"passwd", "tell-nobody"}));
}

TEST_F(ConsoleRecipesTest, ABootLoaderIsStopped) {
  const std::string countdown = "U-Boot 2024.01\nHit any key to stop autoboot:  3 ";
  const SimulatedDevice device(DeviceKind::kTerminal,
                               {.echoes = true,
                                .responses = {{"reset", DeviceAnswer::withoutPrompt(countdown)},
                                              {"printenv bootdelay", "bootdelay=3\n"}}});
  expectShown("autoboot", device);
}

TEST_F(ConsoleRecipesTest, AStationIsTestedWithoutHardware) {
  const Outcome outcome = runCommand(commandOf("without-hardware", {}));
  EXPECT_NE(outcome.output.find("[  PASSED  ] 2 tests."), std::string::npos) << outcome.output;
  EXPECT_EQ(outcome.status, 0);
}

}  // namespace
