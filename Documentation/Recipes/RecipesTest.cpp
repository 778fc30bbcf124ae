// Runs the programs of the cookbook as processes, each against a simulated device.
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Support/Program.h"

namespace {

using zephal::DeviceKind;
using zephal::SimulatedDevice;

using RecipesTest = ProgramTest;

TEST_F(RecipesTest, TheTourPrintsTheAnswerAndThePrompt) {
  for (const DeviceKind kind : {DeviceKind::kTerminal, DeviceKind::kTCP, DeviceKind::kUnix}) {
    const SimulatedDevice device(kind, {.responses = {{"version", "simulated device 1.0\n"}}});
    const Outcome outcome = run("tour", {device.url()});
    EXPECT_EQ(outcome.output, "simulated device 1.0\n=> \n");
    EXPECT_EQ(outcome.status, 0);
  }
}

TEST_F(RecipesTest, ARecordingHasALineForEachLine) {
  SimulatedDevice device(DeviceKind::kTCP);
  const std::string log = pathOf("console.log");
  auto recording = start("record", {device.url(), log, pathOf("raw.log"), "60"});
  ASSERT_TRUE(device.waitForConnections(1));
  device.send("one\ntwo\n");
  EXPECT_TRUE(waitFor([&] { return contentsOf(log).find("two") != std::string::npos; }));
  device.hangUp();
  const Outcome outcome = recording.get();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.output.find("the device went away"), std::string::npos);
  EXPECT_TRUE(std::regex_search(contentsOf(log), std::regex("<post--read>\\[\\d+\\]: one\n")));
  EXPECT_NE(contentsOf(pathOf("raw.log")).find("<pre---read>"), std::string::npos);
}

TEST_F(RecipesTest, ARecordingEndsWhenItsTimeIsUp) {
  const SimulatedDevice device(DeviceKind::kTerminal);
  const Outcome outcome = run("record", {device.url(), pathOf("a"), pathOf("b"), "0.2"});
  EXPECT_EQ(outcome.output, "recorded\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST_F(RecipesTest, ALogThatWasCopiedAndTruncatedGoesOnAtItsStart) {
  SimulatedDevice device(DeviceKind::kTCP);
  const std::string log = pathOf("console.log");
  auto recording = start("record", {device.url(), log, pathOf("raw.log"), "60"});
  ASSERT_TRUE(device.waitForConnections(1));
  device.send("before\n");
  ASSERT_TRUE(waitFor([&] { return contentsOf(log).find("before") != std::string::npos; }));
  std::filesystem::copy_file(log, log + ".1");
  std::filesystem::resize_file(log, 0);
  device.send("after\n");
  EXPECT_TRUE(waitFor([&] { return contentsOf(log).find("after") != std::string::npos; }));
  device.hangUp();
  recording.get();
  EXPECT_EQ(contentsOf(log).find('\0'), std::string::npos);
  EXPECT_EQ(contentsOf(log).find("before"), std::string::npos);
}

TEST_F(RecipesTest, ADeviceThatRebootsIsFoundAgain) {
  for (const DeviceKind kind : {DeviceKind::kTerminal, DeviceKind::kTCP, DeviceKind::kUnix}) {
    SimulatedDevice device(kind, {.bootText = "booting\n"});
    auto reconnecting = start("reconnect", {device.url()});
    ASSERT_TRUE(device.waitForCommands(1));
    device.reboot(std::chrono::milliseconds(300));
    const Outcome outcome = reconnecting.get();
    EXPECT_TRUE(outcome.output.ends_with("booting\n=> \n")) << outcome.output;
    EXPECT_EQ(outcome.status, 0);
  }
}

TEST_F(RecipesTest, AnEchoWithCarriageReturnsIsRemoved) {
  const SimulatedDevice device(DeviceKind::kTerminal, {.prompt = "# ",
                                                       .echoes = true,
                                                       .translatesLineEnds = true,
                                                       .responses = {{"version", "1.0\n2.0\n"}}});
  EXPECT_EQ(run("crlf", {device.url()}).output, "1.0\n2.0\n# \n");
}

TEST_F(RecipesTest, NoiseIsFilteredWhereverItIsSplit) {
  const SimulatedDevice device(DeviceKind::kTCP, {.responses = {{"status",
                                                                 "\x1b[32mre\xff"
                                                                 "ady\x1b[0m\n"}},
                                                  .trickles = true});
  EXPECT_EQ(run("noise", {device.url()}).output, "ready\n=> \n");
}

TEST_F(RecipesTest, WhatCameBeforeATimeOutIsShown) {
  SimulatedDevice device(DeviceKind::kTCP,
                         {.responses = {{"selftest", "half\n"}, {"version", "1.0\n"}},
                          .pause = std::chrono::seconds(3),
                          .splitsPromptAfter = 0});
  auto waiting = start("timeout", {device.url()});
  ASSERT_TRUE(device.waitForCommands(1));
  const Outcome outcome = waiting.get();
  EXPECT_NE(
      outcome.output.find("Timed out waiting for response for command 'selftest' after 1 sec\n"
                          "Until then it said: half\n"),
      std::string::npos)
      << outcome.output;
  EXPECT_TRUE(outcome.output.ends_with("1.0\n=> \n")) << outcome.output;
}

TEST_F(RecipesTest, APasswordIsInNoLogAndNoOutput) {
  const auto answers = [](const std::string& command) {
    return std::string(command == "su" ? "Password: " : "welcome\n# ");
  };
  const SimulatedDevice device(DeviceKind::kTerminal, {.prompt = "", .respond = answers});
  const Outcome outcome = run("secrets", {device.url(), pathOf("log"), "tell-nobody"});
  EXPECT_EQ(outcome.output, "in\n");
  EXPECT_EQ(contentsOf(pathOf("log")), "Password: welcome\n# ");
  EXPECT_EQ(device.commands(), (std::vector<std::string>{"su", "tell-nobody"}));
}

TEST_F(RecipesTest, APortCanBeOpenedNextToAnotherProgram) {
  const SimulatedDevice device(DeviceKind::kTerminal, {.responses = {{"version", "1.0\n"}}});
  const std::ifstream other(device.path());
  EXPECT_EQ(run("shared-port", {device.url()}).output, "1.0\n=> \n");
  EXPECT_TRUE(std::ifstream(device.path()).is_open());
}

TEST_F(RecipesTest, FailuresGoToTheHostsLog) {
  EXPECT_TRUE(std::regex_match(run("syslog", {"carrier-pigeon://loft"}).output,
                               std::regex("station\\[\\d+\\]: Invalid URL scheme\nnot open\n")));
#ifdef HAS_SPDLOG
  EXPECT_EQ(run("spdlog", {"carrier-pigeon://loft"}).output,
            "[error] Invalid URL scheme\nnot open\n");
#endif
}

TEST_F(RecipesTest, AChannelOfOnesOwnGivesUpOnAFlood) {
  const SimulatedDevice device(DeviceKind::kTCP,
                               {.prompt = "> ", .responses = {{"dump", std::string(500, 'x')}}});
  EXPECT_EQ(run("own-channel", {device.url(), "100"}).output, "more than 100 bytes\n");
  EXPECT_EQ(run("own-channel", {device.url(), "502"}).output, std::string(500, 'x') + "> \n");
}

TEST_F(RecipesTest, ATransformerOfOnesOwnMayHoldBytesBack) {
  const SimulatedDevice device(
      DeviceKind::kTCP,
      {.prompt = "# ", .responses = {{"progress", "1%\r2%\r\ndone\r\n"}}, .trickles = true});
  EXPECT_EQ(run("own-transformer", {device.url()}).output, "1%\r2%\ndone\n# \n");
}

TEST_F(RecipesTest, AServerAnswersAClientWithAnObject) {
  // The server runs until its standard input ends.
  const std::string input = pathOf("input");
  ASSERT_EQ(::mkfifo(input.c_str(), 0600), 0);
  std::FILE* const server =
      ::popen((commandFor("server", {}) + " < " + quoted(input)).c_str(), "r");
  ASSERT_NE(server, nullptr);
  std::ofstream writer(input);
  std::array<char, 100> url{};
  EXPECT_NE(std::fgets(url.data(), url.size(), server), nullptr);
  std::string line = url.data();
  line = line.substr(0, line.find('\n'));
  const Outcome outcome = run("objects", {line});
  EXPECT_NE(outcome.output.find("{\"sum\": 2.5}\n"), std::string::npos) << outcome.output;
  EXPECT_EQ(outcome.status, 0);
  writer.close();
  readAll(server);  // its last line must find a reader
  EXPECT_EQ(::pclose(server), 0);
}

}  // namespace
